//  Checks the host name.
#include "check.h"
#include "show.h"

#include <algorithm>
#include <cctype>

namespace check {

namespace {

//  The service searches a C string for each character, and that search also finds the terminating zero byte.
constexpr std::string_view illegal_characters("'\"():\0", 6);

constexpr std::size_t record_name = sizeof(RdbSnapshot::name) - 1;

//  Length limits of RFC 1035 section 2.3.4; characters of RFC 1123 section 2.1, and the underscore, which is in use.
bool isDomainName(const std::string& name) {
    constexpr std::size_t longest_label = 63;
    constexpr std::size_t longest_name = 253;
    std::size_t label = 0;
    for (const char c : name) {
        if (c != '.' && c != '-' && c != '_' && std::isalnum(static_cast<unsigned char>(c)) == 0)
            return false;
        if (c == '.' && label == 0)
            return false;
        label = c == '.' ? 0 : label + 1;
        if (label > longest_label)
            return false;
    }
    return label > 0 && name.size() <= longest_name;
}

bool isAscii(const std::string& name) {
    return std::all_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x80; });
}

//  Returns advice on a name that isDomainName rejects, as the end of a sentence; empty if there is no advice.
std::string advice(const std::string& name) {
    if (!isAscii(name))
        return "; write a name with letters beyond ASCII in its form xn--...";
    if (name.ends_with('.') && isDomainName(name.substr(0, name.size() - 1)))
        return "; write it without the dot at its end";
    return {};
}

bool reachesDnsServer(const Subject& subject) {
    return !subject.run.dnsurl.empty() && !subject.run.dnsuser.empty() && !subject.run.dnspswd.empty();
}

}  // namespace

void checkHost(const Subject& subject, CReport& report) {
    const std::string& name = subject.run.hostname;
    const std::size_t line = subject.line[hostname];
    if (name.empty()) {
        report.fail(line, "hostname is missing or empty; the service logs \"not config hostname\"");
        return;
    }
    const std::size_t bad = name.find_first_of(illegal_characters);
    if (bad != std::string::npos) {
        report.fail(line, "hostname contains " + quoted(name.substr(bad, 1)) +
                              "; the service logs \"hostname contains illegal characters\"");
        return;
    }
    if (name.size() > record_name)
        report.warn(line, "hostname has " + std::to_string(name.size()) + " bytes; the rdb server gets the first " +
                              std::to_string(record_name));
    if (reachesDnsServer(subject) && !isDomainName(name))
        report.warn(line,
                    "hostname is not a domain name: the client library rejects it for a DNS server or a hosts file" +
                        advice(name));
}

}  // namespace check
