//  A second implementation of two parsers: of a log level, and of the first parameter in the query of the log url. It
//  removes carriage returns and line feeds, splits the query at every separator, and examines each piece.
#ifndef TESTS_SUPPORT_LEVEL_MODEL_H
#define TESTS_SUPPORT_LEVEL_MODEL_H

#include "port_list_model.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

inline std::string modelLowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

//  The number is truncated to 32 bits before the comparison with 0.
inline std::int32_t modelLevel(const std::string& text) {
    static const std::map<std::string, std::int32_t> names = {{"err", 10}, {"wrn", 20}, {"inf", 30}, {"msg", 30},
                                                              {"mor", 31}, {"dbg", 40}, {"all", 999}};
    const auto name = names.find(modelLowerCase(text));
    if (name != names.end())
        return name->second;
    const auto number = static_cast<std::int32_t>(modelDecimal(text));
    return number == 0 ? 30 : number;
}

//  Removes the next word from the start of `text`, which has no carriage returns and line feeds. Sets `ended` to
//  whether a separator ended the word. Returns nothing if there is no word, or if a text between two separators,
//  without blanks and tabs at its start, is longer than 15 characters.
inline std::optional<std::string> modelWord(std::string& text, char separator, bool& ended) {
    for (;;) {
        const std::size_t end = text.find(separator);
        ended = end != std::string::npos;
        std::string piece = text.substr(0, end);
        text.erase(0, ended ? end + 1 : text.size());
        piece.erase(0, std::min(piece.find_first_not_of(" \t"), piece.size()));
        if (piece.size() > 15)
            return std::nullopt;
        const std::size_t last = piece.find_last_not_of(" \t");
        if (last != std::string::npos)
            return piece.substr(0, last + 1).c_str();
        if (!ended)
            return std::nullopt;
    }
}

struct PairModel {
    bool found = false;
    std::string key, value;  // the parts before a zero byte, as in C strings

    explicit PairModel(std::string query) {
        std::erase_if(query, [](char c) { return c == '\r' || c == '\n'; });
        bool ended = false;
        const auto first = modelWord(query, '=', ended);
        if (!first || !ended)
            return;
        const auto second = modelWord(query, '&', ended);
        if (!second)
            return;
        found = true;
        key = *first;
        value = *second;
    }

    //  Returns the level of a log that had the level `before` and was then opened with this query.
    std::int32_t level(std::int32_t before) const {
        return found && modelLowerCase(key) == "level" ? modelLevel(value) : before;
    }
};

#endif
