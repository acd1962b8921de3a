//  The findings of a check, and the text in which they are printed.
//
//      addrpubd.ini: the service takes these settings from it:
//        hostname      = "host1"                     texts in quotes; \xHH for each byte that is not printable ASCII
//        rdbpswd       = set, not shown
//        ...
//      With them:
//        the log goes to the console; ...
//      addrpubd.ini:7: warning: rdbuser is missing or empty, so the rdb server is left out
//      addrpubd.ini: 1 warning
#ifndef TOOLS_REPORT_H
#define TOOLS_REPORT_H

#include <string>
#include <vector>

namespace check {

//  Exit statuses of the tool.
constexpr int status_clean = 0;
constexpr int status_warnings = 1;
constexpr int status_no_start = 2;  // also: wrong command line, check not possible, output cannot be written

enum class Severity {
    warning,
    error,  // the service would not start
};

struct Finding {
    Severity severity;
    std::size_t line;  // line number from 1; 0 if the finding belongs to no line
    std::string text;  // printable, without secrets
};

class CReport {
public:
    std::string file;                // path of the file
    std::vector<std::string> table;  // the nine settings; empty if the file was not read or is UTF-16
    std::vector<std::string> words;  // sentences about what the service does with the settings
    std::vector<Finding> findings;

    void warn(std::size_t line, std::string text) { findings.push_back({Severity::warning, line, std::move(text)}); }
    void fail(std::size_t line, std::string text) { findings.push_back({Severity::error, line, std::move(text)}); }

    //  Sorts the findings by line. Findings that belong to no line are last.
    void sort();

    int exitStatus() const;
    std::string text() const;
};

}  // namespace check

#endif
