//  Warns about lines that the ini reader interprets differently from what their author probably intended.
#include "check.h"
#include "show.h"

#include <algorithm>
#include <cctype>

namespace check {

namespace {

std::string inLine(std::size_t number) {
    return "line " + std::to_string(number);
}

//  Returns whether key may be shown. An unknown key may be part of a password, if the password is split over two lines.
//  A key is considered harmless if it has at most 20 characters, all of them letters, and contains neither "pswd" nor
//  "pass".
bool isHarmless(const std::string& key) {
    constexpr std::size_t max_length = 20;
    std::string lower;
    for (const char c : key) {
        if (std::isalpha(static_cast<unsigned char>(c)) == 0)
            return false;
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return key.size() <= max_length && lower.find("pswd") == std::string::npos &&
           lower.find("pass") == std::string::npos;
}

std::string suggestion(std::size_t setting) {
    return setting == no_setting ? std::string() : std::string("; ") + settings[setting].name + " may be meant";
}

//  A key that starts on an earlier line is not shown, because it combines text of several lines and may contain a
//  secret.
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
        report.warn(line.number, std::string(settings[setting].name) + " is set in " + inLine(seen[setting]) +
                                     " already; the last value is used");
    seen[setting] = line.number;
}

bool isSecretLine(const IniLine& line) {
    return line.setting != no_setting && settings[line.setting].secret;
}

//  Warns if the author probably did not intend the end of the value:
//      - A carriage return ends the value, and text follows it.
//      - A "#" or ";" without a blank in front ends the value. It may be intended as part of the value.
//      - A "#" or ";" after a blank ends the value, text follows it without a blank, and the value is empty or a
//        password. A password with blanks may contain " #". After other values, the character usually starts a comment.
void checkEnd(const IniLine& line, CReport& report) {
    if (line.rest.empty() || line.rest == "\r")
        return;
    if (line.rest.front() == '\r') {
        report.warn(line.number, "a carriage return ends the value; the rest of the line is ignored");
        return;
    }
    const bool text_follows = line.rest.size() > 1 && line.rest[1] != ' ' && line.rest[1] != '\t' &&
                              line.rest[1] != '\r' && line.rest[1] != line.rest[0];
    const bool empty = line.calls.back().value.empty();
    if (line.glued || (text_follows && (empty || isSecretLine(line))))
        report.warn(line.number, std::string(empty ? "the value is empty: it" : "the value") + " ends at \"" +
                                     line.rest.front() + "\"; the rest of the line is ignored");
}

void checkValue(const IniLine& line, CReport& report) {
    const std::string& value = line.calls.back().value;
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
        report.warn(line.number, "the quotes are part of the value");
    if (value.find('\0') != std::string::npos)
        report.warn(line.number,
                    "the value contains a zero byte; the log and the client library get the text before it");
}

void checkTextWithoutKey(const IniLine& line, CReport& report) {
    if (line.drops_text)
        report.warn(line.number, "text without \"=\" before a comment or a section, ignored");
    if (!line.sets && !line.left.empty())
        report.warn(line.number, "no \"=\" in this line: its text becomes the start of the next key");
    if (line.swallows_setting)
        report.warn(line.number, "the line is a section header; a setting in it is ignored");
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
