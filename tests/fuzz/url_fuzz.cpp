//  Compares the url parser with its model. The resolver is replaced: a host resolves if it starts with a digit or
//  contains a colon, and its addresses are computed from its name.
#include "fuzz_input.h"
#include "olk_string.h"
#include "url_model.h"

namespace fuzz {

//  The parser calls get_ips_by_domain() for its text type. For this type the compiler finds the function of that name
//  below by argument-dependent lookup, and prefers it to the template, which calls the system's resolver.
struct text : olk::string {};

std::pair<std::string, std::string> addresses(const std::string& name) {
    std::pair<std::string, std::string> found;
    if (!name.empty() && name[0] >= '0' && name[0] <= '9')
        found.first = "4-" + name;
    if (name.find(':') != std::string::npos)
        found.second = "6-" + name;
    return found;
}

int get_ips_by_domain(const char* domain, text& ipv4, text& ipv6) {
    const auto [first, second] = addresses(domain);
    ipv4.append(first.c_str());
    ipv6.append(second.c_str());
    return first.empty() && second.empty() ? -1 : 0;
}

}  // namespace fuzz

#include "olk_url.h"

namespace {

bool same(const olk::string& subject, const std::string& model) {
    return subject.size() == model.size() &&
           (model.empty() || std::memcmp(subject.data(), model.data(), model.size()) == 0);
}

void check(olk::net::url<fuzz::text>& parsed, const std::string& input) {
    const UrlModel model(input, fuzz::addresses);
    const bool good = parsed.parse(input.data(), input.size());
    require(good == model.good, "the results agree");
    require(parsed.port == model.port, "the ports agree");
    require(same(parsed.scheme, model.scheme), "the schemes agree");
    require(same(parsed.host, model.host), "the hosts agree");
    require(same(parsed.ipv4, model.ipv4), "the IPv4 texts agree");
    require(same(parsed.ipv6, model.ipv6), "the IPv6 texts agree");
    require(same(parsed.path, model.path), "the paths agree");
    require(same(parsed.args, model.args), "the queries agree");
}

}  // namespace

//  The first byte is the length of the first url. The bytes after that url are a second url, which the same object
//  parses afterwards.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    olk::net::url<fuzz::text> parsed;
    const auto length = input.number<uint8_t>();
    check(parsed, input.bytes(length));
    check(parsed, input.all());
    return 0;
}
