//  Checks the port list. Each item is read separately, by the parser of the service.
#include "check.h"
#include "show.h"

#include <cstdint>

namespace check {

namespace {

std::vector<std::uint16_t> portsOf(const std::string& list) {
    olk::vector_<std::uint16_t> ports;
    parsePortList(list, ports);
    return {ports.begin(), ports.end()};
}

//  Returns whether item is so long that the list ends there. The parser then reads no port after it.
bool endsTheList(const std::string& item) {
    const std::vector<std::uint16_t> ports = portsOf(item + ",1");
    return ports.empty() || (ports.size() == 1 && portsOf(item).size() == 1);
}

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t");
    const std::size_t last = text.find_last_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

bool isWritten(const std::string& item, std::uint16_t port) {
    const std::size_t digits = item.find_first_not_of('0');
    return digits != std::string::npos && item.substr(digits) == std::to_string(port);
}

//  Returns false if the list ends at this item.
bool checkItem(const std::string& text, bool last, std::size_t line, CReport& report) {
    const std::string item = trimmed(text);
    if (endsTheList(text)) {
        report.warn(line, "a port of more than 38 characters ends the list; it and all after it are dropped");
        return false;
    }
    const std::vector<std::uint16_t> ports = portsOf(text);
    if (item.empty() && !last)
        report.warn(line, "an empty port is skipped");
    else if (!item.empty() && ports.empty())
        report.warn(line, "port " + quoted(item) + " is ignored: it is 0 in 16 bits, or not a number");
    else if (!item.empty() && !isWritten(item, ports.front()))
        report.warn(line, "port " + quoted(item) + " is read as " + std::to_string(ports.front()));
    return true;
}

}  // namespace

void checkPorts(const Subject& subject, CReport& report) {
    const std::size_t line = subject.line[dnshttpsports];
    bool more = true;
    for (std::size_t start = 0; more && !subject.ports.empty();) {
        const std::size_t comma = subject.ports.find(',', start);
        const bool last = comma == std::string::npos;
        const std::string item = subject.ports.substr(start, last ? std::string::npos : comma - start);
        more = checkItem(item, last, line, report) && !last;
        start = comma + 1;
    }
    if (!subject.ports.empty() && subject.run.dnshttpsports.empty())
        report.warn(line, "dnshttpsports contains no port; the DNS server gets none");
}

}  // namespace check
