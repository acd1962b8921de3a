#include "olk_prtlog.h"

#include <charconv>
#include <cstdio>
#include <ctime>

#include <string.h>
#include <strings.h>
#include <sys/time.h>

namespace olk {

namespace {

//  Bytes that a prefix up to its level may need, and some more: three numbers of 20 characters at most, four of a fixed
//  width, a level's name, and what stands between them.
constexpr size_t prefix_size = 128;

//  Writes value in decimal, with zeros in front up to WIDTH digits. Returns the place behind it. Requires: 0 <= value,
//  and no more digits than WIDTH.
template <size_t WIDTH>
char* put_padded(char* to, int value) {
    for (size_t i = WIDTH; i-- > 0; value /= 10)
        to[i] = static_cast<char>('0' + value % 10);
    return to + WIDTH;
}

//  Writes value in decimal. Returns the place behind it.
char* put_number(char* to, long long value) {
    constexpr size_t longest = 20;  // a sign and 19 digits
    return std::to_chars(to, to + longest, value).ptr;
}

//  Writes "[2025/4/11 09:05:03.042117] [inf]", the time being now. Returns the place behind it.
char* put_time_and_level(char (&text)[prefix_size], int level) {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    if (localtime_r(&now.tv_sec, &local) == nullptr) {
        local = tm{};
        local.tm_year = 70;
        local.tm_mday = 1;
    }
    char* next = text;
    *next++ = '[';
    next = put_number(next, 1900LL + local.tm_year);
    *next++ = '/';
    next = put_number(next, local.tm_mon + 1);
    *next++ = '/';
    next = put_number(next, local.tm_mday);
    *next++ = ' ';
    next = put_padded<2>(next, local.tm_hour);
    *next++ = ':';
    next = put_padded<2>(next, local.tm_min);
    *next++ = ':';
    next = put_padded<2>(next, local.tm_sec);
    *next++ = '.';
    next = put_padded<6>(next, static_cast<int>(now.tv_usec));
    char buffer[level_name_size];
    next = stpcpy(next, "] [");
    next = stpcpy(next, level_name(level, buffer));
    *next++ = ']';
    return next;
}

//  Prints "[2025/4/11 09:05:03.042117] [inf] ", or with a tag "[...] [inf][tag] ".
void print_prefix(int level, const char* tag) {
    char text[prefix_size];
    char* next = put_time_and_level(text, level);
    const bool tagged = tag != nullptr && *tag != '\0';
    *next++ = tagged ? '[' : ' ';
    std::fwrite(text, 1, static_cast<size_t>(next - text), stdout);
    if (!tagged)
        return;
    std::fputs(tag, stdout);
    std::fputs("] ", stdout);
}

//  Prints one line. Returns what the text's formatting printed.
__attribute__((format(printf, 3, 0))) int print_record(int level, const char* tag, const char* format, va_list args) {
    print_prefix(level, tag);
    const int printed = std::vprintf(format, args);
    std::putchar('\n');
    return printed;
}

}  // namespace

int prtlog::open(const char* target) {
    tostdout = target != nullptr && strcasecmp(target, "stdout") == 0 ? 1 : 0;
    return 0;
}

int prtlog::add(int record_level, const char* format, ...) {
    if (drops(record_level))
        return 0;
    va_list args;
    va_start(args, format);
    const int printed = print_record(record_level, nullptr, format, args);
    va_end(args);
    return printed;
}

int prtlog::append(int record_level, const char* format, ...) {
    if (drops(record_level))
        return 0;
    va_list args;
    va_start(args, format);
    const int printed = std::vprintf(format, args);
    va_end(args);
    return printed;
}

int prtlog::push(int record_level, const char* tag, const char* format, va_list args) {
    if (drops(record_level))
        return 0;
    const int printed = print_record(record_level, tag, format, args);
    std::fflush(stdout);
    return printed;
}

int prtlog::getlevel() {
    return level;
}

void prtlog::setlevel(int configured_level) {
    level = configured_level;
}

void prtlog::runtime() {}

void prtlog::release() {
    delete this;
}

}  // namespace olk
