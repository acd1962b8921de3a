//  Reads the table that addrpubd-check prints, and compares its nine settings with those that the service stores.
#ifndef TESTS_SUPPORT_CHECK_MODEL_H
#define TESTS_SUPPORT_CHECK_MODEL_H

#include "runcls.h"

#include <string>
#include <vector>

//  Removes quotes and escapes from `shown` and stores the result in `text`. Returns false if `shown` is not in quotes
//  or contains another quote without an escape.
inline bool unquoted(const std::string& shown, std::string& text) {
    text.clear();
    if (shown.size() < 2 || shown.front() != '"' || shown.back() != '"')
        return false;
    for (std::size_t i = 1; i + 1 < shown.size(); ++i) {
        if (shown[i] == '"')
            return false;
        if (shown[i] != '\\') {
            text += shown[i];
            continue;
        }
        const char kind = shown[++i];
        text += kind == 'x' ? static_cast<char>(std::stoi(shown.substr(i + 1, 2), nullptr, 16)) : kind;
        i += kind == 'x' ? 2 : 0;
    }
    return true;
}

//  Returns whether `shown` is the printed form of `text`. If `url` is true and `text` has @ or ?, it may contain a
//  secret: then the function only checks that `shown` is in quotes.
inline bool saysText(const std::string& shown, const std::string& text, bool url) {
    std::string read;
    return unquoted(shown, read) && ((url && text.find_first_of("@?") != std::string::npos) || read == text);
}

inline bool saysPassword(const std::string& shown, const std::string& text) {
    if (text.rfind("file:/", 0) == 0)
        return shown.rfind("in the file ", 0) == 0 && saysText(shown.substr(12), text.substr(5), false);
    return shown == (text.empty() ? "\"\"" : "set, not shown");
}

inline bool saysPorts(const std::string& shown, const CRunCls& run) {
    std::string ports;
    for (const std::uint16_t port : run.dnshttpsports)
        ports += (ports.empty() ? "" : ", ") + std::to_string(port);
    return shown == (ports.empty() ? "none" : ports);
}

//  Returns the first row of the table that differs from the settings in `run`, or an empty text if no row differs. If
//  the table does not have nine rows, returns a text that reports this.
inline std::string disagreement(const std::vector<std::string>& table, const CRunCls& run) {
    struct Row {
        std::string name;
        const std::string* text;
        bool url, password;
    };
    const Row rows[] = {
        {"hostname      = ", &run.hostname, false, false}, {"logurl        = ", &run.logurl, true, false},
        {"rdburl        = ", &run.rdburl, true, false},    {"rdbuser       = ", &run.rdbuser, false, false},
        {"rdbpswd       = ", &run.rdbpswd, false, true},   {"dnsurl        = ", &run.dnsurl, true, false},
        {"dnsuser       = ", &run.dnsuser, false, false},  {"dnspswd       = ", &run.dnspswd, false, true},
        {"dnshttpsports = ", nullptr, false, false},
    };
    if (table.size() != std::size(rows))
        return "the table has other rows";
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const Row& row = rows[i];
        const bool named = table[i].rfind(row.name, 0) == 0;
        const std::string shown = named ? table[i].substr(row.name.size()) : std::string();
        const bool agrees = row.text == nullptr ? saysPorts(shown, run)
                            : row.password      ? saysPassword(shown, *row.text)
                                                : saysText(shown, *row.text, row.url);
        if (!named || !agrees)
            return table[i];
    }
    return {};
}

#endif
