#include "request/dns_request.h"

#include "net/host_name.h"

#include <algorithm>
#include <arpa/inet.h>
#include <limits>
#include <nlohmann/json.hpp>

namespace rdbopen {

namespace {

using json = nlohmann::ordered_json;

//  inet_pton would treat a zero byte as the end of the text.
bool isAddress(const std::string& text, int family) {
    in6_addr binary{};
    return text.find('\0') == std::string::npos && inet_pton(family, text.c_str(), &binary) == 1;
}

Status badRequest(const char* reason) {
    return {errorBadRequest, reason};
}

//  Appends the elements of the list item[key], if it exists. Fails with badRequest(reason) if it contains anything
//  except addresses.
Status takeAddresses(const json& item, const char* key, int family, const char* reason,
                     std::vector<std::string>& addresses) {
    const auto list = item.find(key);
    if (list == item.end())
        return {};
    if (!list->is_array())
        return badRequest(reason);
    for (const json& element : *list) {
        const auto* text = element.get_ptr<const std::string*>();
        if (text == nullptr || !isAddress(*text, family))
            return badRequest(reason);
        if (std::find(addresses.begin(), addresses.end(), *text) == addresses.end())
            addresses.push_back(*text);
    }
    return {};
}

Status takePorts(const json& item, std::vector<std::uint16_t>& ports) {
    constexpr char reason[] = "httpsports is not a list of port numbers";
    const auto list = item.find("httpsports");
    if (list == item.end())
        return {};
    if (!list->is_array())
        return badRequest(reason);
    for (const json& element : *list) {
        const auto* number = element.get_ptr<const json::number_unsigned_t*>();
        if (number == nullptr || *number == 0 || *number > std::numeric_limits<std::uint16_t>::max())
            return badRequest(reason);
        const auto port = static_cast<std::uint16_t>(*number);
        if (std::find(ports.begin(), ports.end(), port) == ports.end())
            ports.push_back(port);
    }
    return {};
}

}  // namespace

Status parseDnsRequest(std::string_view text, DnsRequest& request) {
    const json root = json::parse(text, nullptr, false);
    if (!root.is_object())
        return badRequest("the request is not a JSON object");
    const auto seqno = root.find("seqno");
    if (seqno == root.end() || !seqno->is_number_integer())
        return badRequest("seqno is not an integer");
    request.seqno = seqno->get<std::int64_t>();
    const auto kind = root.find("request");
    if (kind == root.end() || *kind != "ws_dnsupdate")
        return badRequest("the request is not ws_dnsupdate");
    const auto item = root.find("item");
    if (item == root.end() || !item->is_object())
        return badRequest("item is not an object");
    const auto name = item->find("name");
    //  hosts(5) excludes only blanks and "#", but a name server ignores a line whose name is not a DNS name.
    if (name == item->end() || !name->is_string() || !isDnsName(name->get_ref<const std::string&>()))
        return badRequest("name is not a host name");
    request.name = name->get<std::string>();
    Status status = takeAddresses(*item, "ipv4s", AF_INET, "ipv4s is not a list of IPv4 addresses", request.addresses);
    if (status.ok())
        status = takeAddresses(*item, "ipv6s", AF_INET6, "ipv6s is not a list of IPv6 addresses", request.addresses);
    return status.ok() ? takePorts(*item, request.httpsPorts) : status;
}

std::string dnsReply(const std::optional<std::int64_t>& seqno, int code, std::string_view message) {
    json reply;
    reply["seqno"] = nullptr;
    if (seqno)
        reply["seqno"] = *seqno;
    reply["code"] = code;
    reply["message"] = message;
    //  A message may contain a file name, which may not be UTF-8.
    return reply.dump(-1, ' ', false, json::error_handler_t::replace);
}

Status DnsUpdateBackend::apply(std::string_view text, std::string& reply) {
    DnsRequest request;
    Status status = parseDnsRequest(text, request);
    if (status.ok())
        status = update(request);
    reply = dnsReply(request.seqno, status.code, status.ok() ? "ok" : status.reason);
    return status;
}

std::string DnsUpdateBackend::refusal(std::string_view text, int code) {
    DnsRequest request;
    static_cast<void>(parseDnsRequest(text, request));  // for the seqno
    return dnsReply(request.seqno, code, "the server is not connected");
}

//  Only the seqno may differ: each request has its own.
std::optional<std::string> DnsUpdateBackend::repetition(std::string_view text, std::string_view done) {
    DnsRequest now;
    DnsRequest before;
    if (!parseDnsRequest(text, now).ok() || !parseDnsRequest(done, before).ok())
        return {};
    if (now.name != before.name || now.addresses != before.addresses || now.httpsPorts != before.httpsPorts)
        return {};
    return dnsReply(now.seqno, errorNone, "ok");
}

}  // namespace rdbopen
