#include "request/dns_request.h"

#include "engine/report.h"
#include "net/host_name.h"

#include <algorithm>
#include <arpa/inet.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

namespace rdbopen {

namespace {

//  A value of the request. The members of an object are not stored in its Value. The elements of a list within a list
//  follow the inner list as elements of the outer list.
struct Value {
    enum class Kind { missing, other, natural, negative, text, object, list };
    Kind kind = Kind::missing;
    //  Set if kind is natural or negative. 2^63 and above are stored as the negative number with the same bits.
    std::int64_t number = 0;
    std::string text;
    std::vector<Value> elements;

    bool is(Kind expected) const { return kind == expected; }
};

using Kind = Value::Kind;

//  Stores the members that are used. Of several members with the same name the last one is used. The functions in
//  lower_case are those that nlohmann::json::sax_parse calls; they return true to continue. A tree of all values
//  (nlohmann::json::parse) would need twice as much code in the memory of each service.
class RequestReader {
public:
    Value root, seqno, request, item, name, ipv4s, ipv6s, httpsPorts;

    bool null() { return take(Kind::other); }
    bool boolean(bool) { return take(Kind::other); }
    bool number_integer(std::int64_t number) { return take(Kind::negative, number); }
    bool number_unsigned(std::uint64_t number) { return take(Kind::natural, static_cast<std::int64_t>(number)); }
    bool number_float(double, const std::string&) { return take(Kind::other); }
    bool string(std::string& text) { return take(Kind::text, 0, &text); }
    bool binary(std::vector<std::uint8_t>&) { return take(Kind::other); }
    bool start_object(std::size_t) {
        inItem_ = inItem_ || next_ == &item;
        if (next_ == &item)
            name = ipv4s = ipv6s = httpsPorts = {};
        take(Kind::object);
        ++depth_;
        return true;
    }
    bool start_array(std::size_t) {
        Value* const list = next_;
        take(Kind::list);
        ++depth_;
        if (inItem_ && list != nullptr)
            list_ = list;
        return true;
    }
    bool end_object() {
        --depth_;
        inItem_ = inItem_ && depth_ > 1;
        return true;
    }
    bool end_array() {
        --depth_;
        if (depth_ < listDepth)
            list_ = nullptr;
        return true;
    }
    bool key(const std::string& word) {
        next_ = depth_ == 1 ? memberOfRoot(word) : depth_ == 2 && inItem_ ? memberOfItem(word) : nullptr;
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception&) { return false; }

private:
    Value* memberOfRoot(std::string_view word) {
        return word == "seqno" ? &seqno : word == "request" ? &request : word == "item" ? &item : nullptr;
    }
    Value* memberOfItem(std::string_view word) {
        if (word == "name")
            return &name;
        return word == "ipv4s" ? &ipv4s : word == "ipv6s" ? &ipv6s : word == "httpsports" ? &httpsPorts : nullptr;
    }
    bool take(Kind kind, std::int64_t number = 0, std::string* text = nullptr) {
        Value value{kind, number, text == nullptr ? std::string() : std::move(*text), {}};
        if (list_ != nullptr)
            list_->elements.push_back(std::move(value));
        else if (next_ != nullptr)
            *std::exchange(next_, nullptr) = std::move(value);
        return true;
    }
    static constexpr int listDepth = 3;  // depth_ of the elements of a list in the item

    int depth_ = 0;          // number of objects and lists around the next value
    bool inItem_ = false;    // the next value is in the item
    Value* next_ = &root;    // where to store the next value outside a list; null: nowhere
    Value* list_ = nullptr;  // the list of the item that contains the next value, or null
};

//  inet_pton would treat a zero byte as the end of the text.
bool isAddress(const std::string& text, int family) {
    in6_addr binary{};
    return text.find('\0') == std::string::npos && inet_pton(family, text.c_str(), &binary) == 1;
}

Status badRequest(const char* reason) {
    return {errorBadRequest, reason};
}

//  Appends the elements of the list, if it exists. Fails with badRequest(reason) if it is not a list of addresses.
Status takeAddresses(const Value& list, int family, const char* reason, std::vector<std::string>& addresses) {
    if (!list.is(Kind::missing) && !list.is(Kind::list))
        return badRequest(reason);
    for (const Value& element : list.elements) {
        if (!element.is(Kind::text) || !isAddress(element.text, family))
            return badRequest(reason);
        if (std::find(addresses.begin(), addresses.end(), element.text) == addresses.end())
            addresses.push_back(element.text);
    }
    return {};
}

Status takePorts(const Value& list, std::vector<std::uint16_t>& ports) {
    constexpr char reason[] = "httpsports is not a list of port numbers";
    if (!list.is(Kind::missing) && !list.is(Kind::list))
        return badRequest(reason);
    for (const Value& element : list.elements) {
        constexpr std::int64_t maxPort = std::numeric_limits<std::uint16_t>::max();
        if (!element.is(Kind::natural) || element.number <= 0 || element.number > maxPort)
            return badRequest(reason);
        const auto port = static_cast<std::uint16_t>(element.number);
        if (std::find(ports.begin(), ports.end(), port) == ports.end())
            ports.push_back(port);
    }
    return {};
}

}  // namespace

Status parseDnsRequest(std::string_view text, DnsRequest& request) {
    RequestReader read;
    if (!nlohmann::json::sax_parse(text, &read) || !read.root.is(Kind::object))
        return badRequest("the request is not a JSON object");
    if (!read.seqno.is(Kind::natural) && !read.seqno.is(Kind::negative))
        return badRequest("seqno is not an integer");
    request.seqno = read.seqno.number;
    if (read.request.text != "ws_dnsupdate")
        return badRequest("the request is not ws_dnsupdate");
    if (!read.item.is(Kind::object))
        return badRequest("item is not an object");
    //  A name for the back end `hosts` must be a DNS name, too. hosts(5) would allow more, but a name server that reads
    //  the file ignores a line whose name is not a DNS name.
    if (!isDnsName(read.name.text))
        return badRequest("name is not a host name");
    request.name = read.name.text;
    Status status = takeAddresses(read.ipv4s, AF_INET, "ipv4s is not a list of IPv4 addresses", request.addresses);
    if (status.ok())
        status = takeAddresses(read.ipv6s, AF_INET6, "ipv6s is not a list of IPv6 addresses", request.addresses);
    return status.ok() ? takePorts(read.httpsPorts, request.httpsPorts) : status;
}

//  A message may contain a file name, which need not be UTF-8. Unprintable bytes are escaped as in a line of syslog.
std::string dnsReply(const std::optional<std::int64_t>& seqno, int code, std::string_view message) {
    std::string printable;
    appendPrintable(printable, message);
    std::string reply = "{\"seqno\":" + (seqno ? std::to_string(*seqno) : "null");
    reply += ",\"code\":" + std::to_string(code) + ",\"message\":\"";
    for (const char character : printable) {
        if (character == '"' || character == '\\')
            reply += '\\';
        reply += character;
    }
    return reply + "\"}";
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

//  Does not compare the seqno, because each request has its own.
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
