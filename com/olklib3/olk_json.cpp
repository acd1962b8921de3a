#include "olk_json.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace olk {

namespace {

//  For each character, the character that follows the backslash in its escape; 0 if the character needs no escape.
constexpr std::array<char, 256> make_escapes() {
    std::array<char, 256> table{};
    table['\b'] = 'b';
    table['\t'] = 't';
    table['\n'] = 'n';
    table['\f'] = 'f';
    table['\r'] = 'r';
    table['"'] = '"';
    table['/'] = '/';
    table['\\'] = '\\';
    return table;
}

constexpr std::array<char, 256> escapes = make_escapes();

char escape_of(char c) {
    return escapes[static_cast<unsigned char>(c)];
}

//  Types for the 16 characters of one step and for the result of their test. They are compiler vector types: one
//  operator acts on all elements.
constexpr size_t step = 16;
using characters = unsigned char __attribute__((vector_size(step)));
using match_mask = signed char __attribute__((vector_size(step)));
using halves = uint64_t __attribute__((vector_size(step)));

//  Copies length characters in steps of 16; the last step may overlap the previous step. Returns false if a character
//  may need an escape; the copy is then useless. The test detects slash, backslash and all characters up to the double
//  quote. The characters up to the double quote include the other six that need an escape: \b, \t, \n, \f, \r and the
//  double quote itself. Requires length >= step.
bool copy_plain(const char* text, size_t length, char* to) {
    match_mask special = {};
    const auto copy_step = [&](size_t i) {
        characters c;
        std::memcpy(&c, text + i, step);
        std::memcpy(to + i, &c, step);
        special |= (c <= '"') | (c == '/') | (c == '\\');
    };
    const size_t last = length - step;
    for (size_t i = 0; i < last; i += step)
        copy_step(i);
    copy_step(last);
    const auto found = std::bit_cast<halves>(special);
    return (found[0] | found[1]) == 0;
}

//  Appends value in decimal. The digits are written into a buffer from its end, the lowest digit first.
void write_digits(uint64_t value, bool negative, string& out) {
    constexpr size_t max_digits = 20;  // a sign and 19 digits, or 20 digits
    char digits[max_digits];
    char* first = digits + max_digits;
    do {
        *--first = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    if (negative)
        *--first = '-';
    out.append(first, static_cast<size_t>(digits + max_digits - first));
}

//  Appends text in the same form as writeString. Works for every text and any free space in out. The function is not
//  inlined, so that its callers need no stack frame if they write the text in one piece.
__attribute__((noinline)) void write_piecewise(const char* text, size_t length, string& out) {
    out.push_back('"');
    if (!isJsonPlain(text, length)) {
        for (size_t i = 0; i < length; ++i)
            outJsonEsc(text[i], out);
    } else if (length != 0) {
        out.append(text, length);
    }
    out.push_back('"');
}

//  Writes text with its quotes to a buffer of length + 2 characters. Returns false if the text is shorter than one step
//  or may need an escape.
bool put_plain(const char* text, size_t length, char* to) {
    if (length < step || !copy_plain(text, length, to + 1))
        return false;
    to[0] = '"';
    to[length + 1] = '"';
    return true;
}

//  Appends the character lead and a string value. Both are written in one piece if they fit and put_plain can write the
//  text. Otherwise they are written in several pieces; the buffer then grows if necessary.
void write_element(char lead, const char* text, size_t length, string& out) {
    char* end = out.spare(length + 3);
    if (end == nullptr || !put_plain(text, length, end + 1)) {
        out.push_back(lead);
        write_piecewise(text, length, out);
        return;
    }
    end[0] = lead;
    out.lengthen(length + 3);
}

void write_key_piecewise(uint32_t* members, const char* key, string& out) {
    writeSeparator(members, out);
    out.push_back('"');
    out.append(key);
    out.append("\":", 2);
}

//  Appends a key with its quotes and colon, after a comma if needed. If there is room for all these characters and a
//  comma, they are written in one piece, otherwise in several pieces.
void write_key(uint32_t* members, const char* key, string& out) {
    const size_t length = std::strlen(key);
    char* const end = out.spare(length + 4);
    if (end == nullptr) {
        write_key_piecewise(members, key, out);
        return;
    }
    char* next = end;
    if (*members != 0)
        *next++ = ',';
    ++*members;
    *next++ = '"';
    next = std::copy_n(key, length, next);
    *next++ = '"';
    *next++ = ':';
    out.lengthen(static_cast<size_t>(next - end));
}

}  // namespace

void outJsonEsc(char c, string& out) {
    const char escape = escape_of(c);
    if (escape == 0) {
        out.push_back(c);
        return;
    }
    out.push_back('\\');
    out.push_back(escape);
}

bool isJsonPlain(const char* text, size_t length) {
    for (size_t i = 0; i < length; ++i)
        if (escape_of(text[i]) != 0)
            return false;
    return true;
}

void writeString(const char* text, size_t length, string& out) {
    char* end = out.spare(length + 2);
    if (end == nullptr || !put_plain(text, length, end)) {
        write_piecewise(text, length, out);
        return;
    }
    out.lengthen(length + 2);
}

void writeSeparator(uint32_t* members, string& out) {
    if (*members != 0)
        out.push_back(',');
    ++*members;
}

void writeStringMember(uint32_t* members, const char* key, const string& value, string& out) {
    if (value.empty())
        return;
    write_key(members, key, out);
    writeString(value.data(), value.size(), out);
}

void writeStringArrayMember(uint32_t* members, const char* key, const vector_<string>& list, string& out) {
    write_key(members, key, out);
    if (list.empty())
        out.push_back('[');
    for (size_t i = 0; i < list.size(); ++i)
        write_element(i == 0 ? '[' : ',', list[i].data(), list[i].size(), out);
    out.push_back(']');
}

void writeDecimal(int32_t value, string& out) {
    writeDecimal(int64_t{value}, out);
}

void writeDecimal(uint32_t value, string& out) {
    write_digits(value, false, out);
}

void writeDecimal(int64_t value, string& out) {
    const bool negative = value < 0;
    const auto bits = static_cast<uint64_t>(value);
    write_digits(negative ? 0 - bits : bits, negative, out);
}

int writeIsoTime(int64_t milliseconds, string& out) {
    const time_t seconds = milliseconds / 1000;
    const int fraction = static_cast<int>(milliseconds % 1000);
    tm local{};
    if (localtime_r(&seconds, &local) == nullptr)
        return 0;

    constexpr int max_length = 47;
    char text[2 * (max_length + 1)];
    char* const end = text + sizeof text;
    char* next = text;
    next +=
        std::snprintf(next, static_cast<size_t>(end - next), "%lld-%02d-%02dT%02d:%02d:%02d", 1900LL + local.tm_year,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    if (fraction != 0)
        next += std::snprintf(next, static_cast<size_t>(end - next), ".%03d", fraction);

    const long hours = timezone / 3600;
    if (hours == 0)
        *next++ = 'Z';
    else
        next +=
            std::snprintf(next, static_cast<size_t>(end - next), "%c%02ld:00", hours < 0 ? '+' : '-', std::labs(hours));

    if (next - text > max_length)
        return 0;
    out.append(text, static_cast<size_t>(next - text));
    return 1;
}

}  // namespace olk
