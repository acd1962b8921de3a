//  Checks the host name.
#include "check.h"
#include "show.h"

#include "net/host_name.h"

#include <algorithm>

namespace check {

namespace {

//  The service searches a C string for each character of the name, and that search also finds the terminating zero
//  byte. So a zero byte is illegal, too.
constexpr std::string_view illegal_characters("'\"():\0", 6);

constexpr std::size_t record_name = sizeof(RdbSnapshot::name) - 1;

bool isAscii(const std::string& name) {
    return std::all_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x80; });
}

//  Returns advice on a name that isDnsName rejects. The advice is the end of a sentence, or empty.
std::string advice(const std::string& name) {
    if (!isAscii(name))
        return "; write a name with letters beyond ASCII in its form xn--...";
    if (name.ends_with('.') && rdbopen::isDnsName(name.substr(0, name.size() - 1)))
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
    if (reachesDnsServer(subject) && !rdbopen::isDnsName(name))
        report.warn(line,
                    "hostname is not a domain name: the client library rejects it for a DNS server or a hosts file" +
                        advice(name));
}

}  // namespace check
