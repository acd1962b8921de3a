#include "report.h"

#include "show.h"

#include <algorithm>

namespace check {

namespace {

std::string counted(std::ptrdiff_t count, const std::string& what) {
    return count == 0 ? std::string() : std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::ptrdiff_t countOf(const std::vector<Finding>& findings, Severity severity) {
    return std::count_if(findings.begin(), findings.end(),
                         [severity](const Finding& finding) { return finding.severity == severity; });
}

std::string summary(const std::vector<Finding>& findings) {
    const std::string errors = counted(countOf(findings, Severity::error), "error");
    const std::string warnings = counted(countOf(findings, Severity::warning), "warning");
    if (errors.empty())
        return warnings.empty() ? "no findings" : warnings;
    return errors + (warnings.empty() ? "" : ", " + warnings) + ": the service would not start";
}

}  // namespace

void CReport::sort() {
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line - 1 < b.line - 1; });
}

int CReport::exitStatus() const {
    if (countOf(findings, Severity::error) != 0)
        return status_no_start;
    return findings.empty() ? status_clean : status_warnings;
}

std::string CReport::text() const {
    const std::string name = printable(file);
    std::string out;
    if (!table.empty())
        out += name + ": the service takes these settings from it:\n";
    for (const std::string& row : table)
        out += "  " + row + "\n";
    if (!words.empty())
        out += "With them:\n";
    for (const std::string& row : words)
        out += "  " + row + "\n";
    for (const Finding& finding : findings) {
        const std::string place = finding.line == 0 ? name : name + ":" + std::to_string(finding.line);
        out += place + (finding.severity == Severity::error ? ": error: " : ": warning: ") + finding.text + "\n";
    }
    return out + name + ": " + summary(findings) + "\n";
}

}  // namespace check
