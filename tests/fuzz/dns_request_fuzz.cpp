//  Compares the reader of update requests with a model. The reply to any message is JSON.
#include "dns_request_model.h"
#include "fuzz_input.h"
#include "net/host_name.h"
#include "request/dns_request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = fuzz_input(data, size).all();
    rdbopen::DnsRequest request;
    const rdbopen::Status status = rdbopen::parseDnsRequest(text, request);
    const ModelRequest model = modelRequest(text, rdbopen::isDnsName);
    require(status.ok() == model.valid, "both accept or refuse the request");
    require(request.seqno == model.seqno, "both read the same number");
    if (model.valid) {
        require(request.name == model.name, "both read the same name");
        require(request.addresses == model.addresses, "both read the same addresses");
        require(request.httpsPorts == model.ports, "both read the same ports");
    }
    const std::string reply = rdbopen::dnsReply(request.seqno, status.code, text);
    require(modelIsReply(reply, request.seqno, status.code), "the reply is JSON with the numbers");
    return 0;
}
