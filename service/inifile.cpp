#include "inifile.h"

#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace {

bool is_blank(int c) {
    return c == ' ' || c == '\t';
}

bool is_line_end(int c) {
    return c == '\n' || c == '\r';
}

bool is_comment(int c) {
    return c == '#' || c == ';';
}

class IniReader {
public:
    IniReader(FILE* file, const IniCallback& callback) : file_(file), callback_(callback) {}

    void read();

private:
    enum class Next { go_on, stop };

    void skip_byte_order_mark();
    void skip_comment();
    Next read_section();
    Next read_value();

    FILE* const file_;
    const IniCallback& callback_;
    std::string section_;
    std::string key_;
    std::string value_;
};

void IniReader::read() {
    skip_byte_order_mark();
    Next next = Next::go_on;
    while (next == Next::go_on) {
        const int c = std::fgetc(file_);
        if (c == EOF)
            next = Next::stop;
        else if (is_comment(c))
            skip_comment();
        else if (c == '[')
            next = read_section();
        else if (c == '=')
            next = read_value();
        else if (!is_blank(c) && !is_line_end(c))
            key_ += static_cast<char>(c);
    }
}

void IniReader::skip_byte_order_mark() {
    char mark[3];
    if (std::fread(mark, 1, sizeof mark, file_) != sizeof mark || std::memcmp(mark, "\xEF\xBB\xBF", sizeof mark) != 0)
        std::rewind(file_);
}

void IniReader::skip_comment() {
    int c;
    do
        c = std::fgetc(file_);
    while (c != EOF && !is_line_end(c));
    key_.clear();
}

//  Reads behind "[". What follows "]" on the line is read by the ordinary rules.
IniReader::Next IniReader::read_section() {
    section_.clear();
    for (;;) {
        const int c = std::fgetc(file_);
        if (c == EOF)
            return Next::stop;
        if (c == ']' || is_line_end(c))
            break;
        section_ += static_cast<char>(c);
    }
    key_.clear();
    value_.clear();
    return callback_(section_, key_, value_) ? Next::stop : Next::go_on;
}

//  Reads behind "=".
IniReader::Next IniReader::read_value() {
    value_.clear();
    int c;
    while ((c = std::fgetc(file_)) != EOF && !is_comment(c) && !is_line_end(c)) {
        if (!value_.empty() || !is_blank(c))
            value_ += static_cast<char>(c);
    }
    while (!value_.empty() && is_blank(value_.back()))
        value_.pop_back();
    if (callback_(section_, key_, value_))
        return Next::stop;
    while (c != '\n' && c != EOF)
        c = std::fgetc(file_);
    key_.clear();
    return Next::go_on;
}

}  // namespace

bool read_ini_file(const char* path, const IniCallback& callback) {
    FILE* file = std::fopen(path, "rt");
    if (file == nullptr)
        return false;
    IniReader(file, callback).read();
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
