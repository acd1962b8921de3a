//  A second implementation of the ini grammar: a state machine with five states that reads the whole file.
#ifndef TESTS_SUPPORT_INI_MODEL_H
#define TESTS_SUPPORT_INI_MODEL_H

#include <string>
#include <tuple>
#include <vector>

using IniEvent = std::tuple<std::string, std::string, std::string>;  // section, key, value

inline std::vector<IniEvent> modelIniEvents(const std::string& file) {
    enum { in_key, in_comment, in_section, in_value, to_line_feed } state = in_key;
    std::vector<IniEvent> events;
    std::string section, key, value;
    const auto endValue = [&] {
        const std::size_t last = value.find_last_not_of(" \t");
        value.resize(last == std::string::npos ? 0 : last + 1);
        events.emplace_back(section, key, value);
        key.clear();
    };
    const std::size_t first = file.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    for (const char c : file.substr(first)) {
        const bool line_end = c == '\n' || c == '\r';
        switch (state) {
        case in_key:
            if (c == '#' || c == ';')
                state = in_comment;
            else if (c == '[')
                section.clear(), state = in_section;
            else if (c == '=')
                value.clear(), state = in_value;
            else if (!line_end && c != ' ' && c != '\t')
                key.push_back(c);
            break;
        case in_comment:
            if (line_end)
                key.clear(), state = in_key;
            break;
        case in_section:
            if (!line_end && c != ']') {
                section.push_back(c);
                break;
            }
            key.clear();
            events.emplace_back(section, "", "");
            state = in_key;
            break;
        case in_value:
            if (line_end || c == '#' || c == ';') {
                endValue();
                state = c == '\n' ? in_key : to_line_feed;
            } else if (!value.empty() || (c != ' ' && c != '\t')) {
                value.push_back(c);
            }
            break;
        case to_line_feed:
            if (c == '\n')
                state = in_key;
            break;
        }
    }
    if (state == in_value)
        endValue();
    return events;
}

#endif
