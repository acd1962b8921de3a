#include "inifile.h"

#include "olk_words.h"

#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace {

bool isLineEnd(int c) {
    return c == '\n' || c == '\r';
}

bool isComment(int c) {
    return c == '#' || c == ';';
}

class CIniReader {
public:
    CIniReader(FILE* file, const IniCallback& callback) : file_(file), callback_(callback) {}

    void read();

private:
    enum class Next { proceed, stop };

    void skipByteOrderMark();
    void skipComment();
    Next readSection();
    Next readValue();

    FILE* const file_;
    const IniCallback& callback_;
    std::string section_;
    std::string key_;
    std::string value_;
};

void CIniReader::read() {
    skipByteOrderMark();
    Next next = Next::proceed;
    while (next == Next::proceed) {
        const int c = std::fgetc(file_);
        if (c == EOF)
            next = Next::stop;
        else if (isComment(c))
            skipComment();
        else if (c == '[')
            next = readSection();
        else if (c == '=')
            next = readValue();
        else if (!olk::is_blank(c) && !isLineEnd(c))
            key_ += static_cast<char>(c);
    }
}

void CIniReader::skipByteOrderMark() {
    char mark[3];
    if (std::fread(mark, 1, sizeof mark, file_) != sizeof mark || std::memcmp(mark, "\xEF\xBB\xBF", sizeof mark) != 0)
        std::rewind(file_);
}

void CIniReader::skipComment() {
    int c;
    do
        c = std::fgetc(file_);
    while (c != EOF && !isLineEnd(c));
    key_.clear();
}

//  Parses the text after "[". The text that follows "]" on the same line is parsed like any other text.
CIniReader::Next CIniReader::readSection() {
    section_.clear();
    for (;;) {
        const int c = std::fgetc(file_);
        if (c == EOF)
            return Next::stop;
        if (c == ']' || isLineEnd(c))
            break;
        section_ += static_cast<char>(c);
    }
    key_.clear();
    value_.clear();
    return callback_(section_, key_, value_) ? Next::stop : Next::proceed;
}

//  Parses the text after "=".
CIniReader::Next CIniReader::readValue() {
    value_.clear();
    int c;
    while ((c = std::fgetc(file_)) != EOF && !isComment(c) && !isLineEnd(c)) {
        if (!value_.empty() || !olk::is_blank(c))
            value_ += static_cast<char>(c);
    }
    while (!value_.empty() && olk::is_blank(value_.back()))
        value_.pop_back();
    if (callback_(section_, key_, value_))
        return Next::stop;
    while (c != '\n' && c != EOF)
        c = std::fgetc(file_);
    key_.clear();
    return Next::proceed;
}

}  // namespace

bool read_ini_file(const char* path, const IniCallback& callback) {
    FILE* file = std::fopen(path, "rt");
    if (file == nullptr)
        return false;
    CIniReader(file, callback).read();
    std::fclose(file);
    return true;
}

std::string getExeDir() {
    char path[1024] = {};
    ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    while (length > 0 && path[length - 1] != '/')
        path[--length] = '\0';
    return path;
}
