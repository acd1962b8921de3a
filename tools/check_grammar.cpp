//  Lines that the reader understands differently from what they seem to say.
#include "check.h"
#include "show.h"

#include <algorithm>
#include <cctype>

namespace check {

namespace {

std::string inLine(std::size_t number) {
    return "line " + std::to_string(number);
}

//  Returns whether key may be shown. A word of letters only, without "pswd" or "pass" in it, cannot be a piece of a
//  password that was written on a line of its own.
bool isHarmless(const std::string& key) {
    constexpr std::size_t longest = 20;
    std::string lower;
    for (const char c : key) {
        if (std::isalpha(static_cast<unsigned char>(c)) == 0)
            return false;
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return key.size() <= longest && lower.find("pswd") == std::string::npos && lower.find("pass") == std::string::npos;
}

std::string suggestion(std::size_t setting) {
    return setting == no_setting ? std::string() : std::string("; ") + settings[setting].name + " may be meant";
}

//  A key that starts on an earlier line is not shown: nobody has written it like that, and it may hold anything.
void checkUnknownKey(const IniLine& line, CIniProbe& probe, CReport& report) {
    const std::string& key = line.calls.back().key;
    if (line.key_front == 0) {
        const std::string name = isHarmless(key) ? " " + quoted(key) : "";
        report.warn(line.number, "unknown key" + name + ", ignored" + suggestion(similarSetting(key)));
        return;
    }
    const std::size_t meant = settingOf(key.substr(line.key_front), probe);
    const std::string lost =
        meant == no_setting ? std::string() : std::string(", and ") + settings[meant].name + " is not set here";
    report.warn(line.number, "the key begins with the text of " + inLine(line.key_from) + ", so it is unknown" + lost);
}

void checkKey(const IniLine& line, std::array<std::size_t, setting_count>& seen, CIniProbe& probe, CReport& report) {
    const std::string& key = line.calls.back().key;
    if (key.empty()) {
        report.warn(line.number, "a value without a key, ignored");
        return;
    }
    const std::size_t setting = line.setting;
    if (setting == no_setting) {
        checkUnknownKey(line, probe, report);
        return;
    }
    if (seen[setting] != 0)
        report.warn(line.number, std::string(settings[setting].name) + " stands in " + inLine(seen[setting]) +
                                     " already; the last value counts");
    seen[setting] = line.number;
}

bool isSecretLine(const IniLine& line) {
    return line.setting != no_setting && settings[line.setting].secret;
}

//  "#" or ";" is taken for a comment without a warning if a blank precedes it. In a password's line a blank has to
//  follow it, too: without one it may be a part of a password that has blanks.
void checkEnd(const IniLine& line, CReport& report) {
    if (line.behind.empty() || line.behind == "\r")
        return;
    if (line.behind.front() == '\r') {
        report.warn(line.number, "a carriage return ends the value; what follows on the line is dropped");
        return;
    }
    const bool text_follows = line.behind.size() > 1 && line.behind[1] != ' ' && line.behind[1] != '\t' &&
                              line.behind[1] != '\r' && line.behind[1] != line.behind[0];
    const bool empty = line.calls.back().value.empty();
    if (line.glued || (text_follows && (empty || isSecretLine(line))))
        report.warn(line.number, std::string(empty ? "the value is empty: it" : "the value") + " ends at \"" +
                                     line.behind.front() + "\"; what follows on the line is dropped");
}

void checkValue(const IniLine& line, CReport& report) {
    const std::string& value = line.calls.back().value;
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
        report.warn(line.number, "the quotes are part of the value");
    if (value.find('\0') != std::string::npos)
        report.warn(line.number,
                    "the value holds a zero byte; the log and the client library get what is in front of it");
}

void checkTextWithoutKey(const IniLine& line, CReport& report) {
    if (line.drops_text)
        report.warn(line.number, "text without \"=\" in front of a comment or a section, dropped");
    if (!line.sets && !line.left.empty())
        report.warn(line.number, "no \"=\" in this line: its text becomes the front of the next key");
    if (line.swallows_setting)
        report.warn(line.number, "the line is a section header; what looks like a setting in it is ignored");
}

}  // namespace

void checkGrammar(const Subject& subject, CIniProbe& probe, CReport& report) {
    std::array<std::size_t, setting_count> seen = {};
    for (const IniLine& line : subject.lines) {
        checkTextWithoutKey(line, report);
        if (!line.sets)
            continue;
        checkKey(line, seen, probe, report);
        checkValue(line, report);
        checkEnd(line, report);
    }
}

}  // namespace check
