//  Reads the output of the JSON writers byte by byte. It accepts texts with any bytes, because the writers write any
//  bytes; a parser for RFC 8259 would reject some of them.
#ifndef FUZZ_JSON_READER_H
#define FUZZ_JSON_READER_H

#include "fuzz_input.h"

class json_reader {
public:
    explicit json_reader(std::string text) : text_(std::move(text)) {}

    bool empty() const { return text_.empty(); }

    void take(const std::string& expected) {
        require(text_.compare(0, expected.size(), expected) == 0, "the expected punctuation follows");
        text_.erase(0, expected.size());
    }

    //  Reads the string value at the start.
    std::string value() {
        static const std::string letters = "btnfr\"/\\";
        static const std::string characters = "\b\t\n\f\r\"/\\";
        take("\"");
        std::string read;
        size_t at = 0;
        for (; at < text_.size() && text_[at] != '"'; ++at) {
            require(text_[at] == '\\' || characters.find(text_[at]) == std::string::npos,
                    "the eight characters are escaped");
            if (text_[at] != '\\') {
                read.push_back(text_[at]);
                continue;
            }
            const size_t letter = ++at < text_.size() ? letters.find(text_[at]) : std::string::npos;
            require(letter != std::string::npos, "the escape is one of the eight");
            read.push_back(characters[letter]);
        }
        text_.erase(0, at);
        take("\"");
        return read;
    }

private:
    std::string text_;
};

#endif
