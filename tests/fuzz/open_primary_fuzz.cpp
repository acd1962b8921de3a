//  Answers of the system's resolver to the query for a zone's SOA record. Anyone may forge such an answer. Whatever its
//  bytes are, the result is a host name in lower case or a failure. A record of the zone yields its first name, or a
//  failure if this name is not a host name.
#include "dns/primary.h"

#include "fuzz_input.h"
#include "net/host_name.h"
#include "open_dns_support.h"

namespace {

using namespace opentest;
using namespace rdbopen;

const std::string zone = "example.org";

Result<std::string> checkedPrimary(const DnsBytes& answer) {
    Result<std::string> primary = primaryOf(answer, zone);
    require(primary.ok() ? isDnsName(*primary) && *primary == lowerCase(*primary) : !primary.status().reason.empty(),
            "the result is a host name in lower case or a failure");
    return primary;
}

//  A name of labels that the input chooses.
struct MadeName {
    std::string text;
    DnsBytes wire;
    bool dotted = false;  // a label contains a dot

    explicit MadeName(fuzz_input& input) {
        for (int labels = input.number<std::uint8_t>() % 5; labels > 0; --labels) {
            std::string label = input.bytes(input.number<std::uint8_t>() % 12);
            label += label.empty() ? "a" : "";
            dotted = dotted || label.find('.') != std::string::npos;
            text += (text.empty() ? "" : ".") + label;
            wire.push_back(static_cast<std::uint8_t>(label.size()));
            wire.insert(wire.end(), label.begin(), label.end());
        }
        wire.push_back(0);
    }
};

//  Checks the result for a SOA record of the zone whose first name the input chooses.
void checkMade(fuzz_input& input) {
    const MadeName name(input);
    AnswerRecord soa = soaOf(zone);
    const std::size_t old = std::string("ns." + zone).size() + 2;
    soa.data.erase(soa.data.begin(), soa.data.begin() + static_cast<std::ptrdiff_t>(old));
    soa.data.insert(soa.data.begin(), name.wire.begin(), name.wire.end());
    const Result<std::string> primary = checkedPrimary(plainAnswer(1, 0, 0, {soa}));
    if (isDnsName(name.text) && !name.dotted)
        require(primary.ok() && *primary == lowerCase(name.text), "the name in the record is found");
    else
        require(!primary.ok(), "a name that is not a host name is refused");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static_cast<void>(checkedPrimary({data, data + size}));
    fuzz_input input(data, size);
    checkMade(input);
    //  A header of an answer with one record, followed by the input.
    DnsBytes answer = plainAnswer(1, 0, 0);
    answer[7] = 1;
    answer.insert(answer.end(), data, data + size);
    static_cast<void>(checkedPrimary(answer));
    return 0;
}
