#include "check.h"

#include "show.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include <unistd.h>

namespace check {

namespace {

constexpr std::size_t max_file_bytes = 1 << 20;  // bytes; nine settings need far fewer

std::string shown(const Subject& subject, Setting setting) {
    const std::string& text = subject.text(setting);
    if (settings[setting].secret && text.starts_with("file:/"))
        return "in the file " + quoted(text.substr(5));
    if (settings[setting].secret)
        return text.empty() ? "\"\"" : "set, not shown";
    const bool url = setting == logurl || setting == rdburl || setting == dnsurl;
    return quoted(url ? withoutSecrets(text) : text);
}

std::string shownPorts(const CRunCls& run) {
    std::string text;
    for (const std::uint16_t port : run.dnshttpsports)
        text += (text.empty() ? "" : ", ") + std::to_string(port);
    return text.empty() ? "none" : text;
}

void fillTable(const Subject& subject, CReport& report) {
    constexpr std::size_t width = 14;
    for (std::size_t i = 0; i < setting_count; ++i) {
        std::string row = settings[i].name;
        row.resize(width, ' ');
        const bool ports = i == dnshttpsports;
        report.table.push_back(row + "= " +
                               (ports ? shownPorts(subject.run) : shown(subject, static_cast<Setting>(i))));
    }
}

//  Stores the line of each setting. If a key is repeated, the last line is stored.
void storeLines(Subject& subject) {
    for (const IniLine& line : subject.lines) {
        if (line.setting == no_setting)
            continue;
        subject.line[line.setting] = line.number;
        if (line.setting == dnshttpsports)
            subject.ports = line.calls.back().value;
    }
}

bool examine(const std::string& bytes, Subject& subject, CReport& report) {
    CIniProbe probe;
    if (probe.failed())
        return false;
    probe.load(bytes, subject.run);
    subject.lines = readLines(bytes, probe);
    storeLines(subject);
    fillTable(subject, report);
    checkGrammar(subject, probe, report);
    checkHost(subject, report);
    checkLog(subject, report);
    checkServers(subject, report);
    checkPorts(subject, report);
    report.sort();
    return !probe.failed();
}

//  Returns true if bytes starts with a UTF-16 byte order mark or with two UTF-16 characters from U+0001 to
//  U+00FF.
bool isUtf16(std::string_view bytes) {
    const auto zeros = [bytes](std::size_t first) {
        return bytes.size() >= 4 && bytes[first] == '\0' && bytes[first + 2] == '\0' && bytes[1 - first] != '\0' &&
               bytes[3 - first] != '\0';
    };
    return bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF") || zeros(0) || zeros(1);
}

void reportUtf16(CReport& report) {
    report.table.clear();
    report.words.clear();
    report.findings.clear();
    report.fail(0, "it is UTF-16, in which the service finds no setting: save it as UTF-8");
}

struct OpenFile {
    FILE* stream;
    explicit OpenFile(const char* path) : stream(std::fopen(path, "rt")) {}
    ~OpenFile() {
        if (stream != nullptr)
            std::fclose(stream);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
};

}  // namespace

std::string defaultPath(const std::string& folder, const std::string& usual_place) {
    std::string beside = folder + "addrpubd.ini";
    const bool only_usual = access(beside.c_str(), F_OK) != 0 && access(usual_place.c_str(), F_OK) == 0;
    return only_usual ? usual_place : beside;
}

bool checkBytes(const std::string& bytes, CReport& report) {
    Subject subject;
    return examine(bytes, subject, report);
}

//  A directory can be opened, and reading it yields no bytes. So it is checked as an empty file.
bool checkFile(const std::string& path, CReport& report, std::string& problem) {
    const OpenFile file(path.c_str());
    if (file.stream == nullptr) {
        const std::string reason = std::generic_category().message(errno);
        report.fail(0, "it cannot be opened (" + reason + "): the service reports \"Load ... failed.\"");
        return true;
    }
    std::string bytes(max_file_bytes + 1, '\0');
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file.stream));
    if (bytes.size() > max_file_bytes) {
        problem = "it has more than 1 MiB and is not examined";
        return false;
    }
    Subject subject;
    if (!examine(bytes, subject, report)) {
        problem = "memory or a file name for a copy of it is not available (is /proc mounted?)";
        return false;
    }
    if (subject.run.hostname.empty() && isUtf16(bytes))
        reportUtf16(report);
    struct stat status {};
    if (fstat(fileno(file.stream), &status) == 0)
        checkMode(subject, status, report);
    return true;
}

}  // namespace check
