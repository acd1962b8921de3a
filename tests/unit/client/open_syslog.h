//  The library's messages to the syslog daemon, for tests that wrap sendto(2).
#ifndef TESTS_UNIT_OPEN_SYSLOG_H
#define TESTS_UNIT_OPEN_SYSLOG_H

#include <cstdlib>
#include <string>
#include <string_view>

namespace opentest {

struct SyslogLine {
    int priority = 0;
    std::string text;  // the part after the time and the program name
};

//  Parses a line such as "<27>Nov 22 02:48:53 program: text".
inline SyslogLine syslogLineOf(const void* bytes, std::size_t length) {
    const std::string line(static_cast<const char*>(bytes), length);
    const std::size_t priority_end = line.find('>');
    const std::size_t program = priority_end + sizeof "Nov 22 02:48:53 ";
    return {std::atoi(line.c_str() + 1), line.substr(line.find(": ", program) + 2)};
}

}  // namespace opentest

#endif
