#include "olk_prtlog.h"

#include <cstdio>
#include <ctime>

#include <strings.h>
#include <sys/time.h>

namespace olk {

namespace {

//  Prints the prefix of a record: "[2025/4/11 09:05:03.042117] [inf] ", or "[...] [inf][tag] " with a tag.
void print_prefix(int level, const char* tag) {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    if (localtime_r(&now.tv_sec, &local) == nullptr) {
        local = tm{};
        local.tm_year = 70;
        local.tm_mday = 1;
    }
    char buffer[level_name_size];
    const char* name = level_name(level, buffer);
    const int microseconds = static_cast<int>(now.tv_usec);
    const long long year = 1900LL + local.tm_year;
    const int month = local.tm_mon + 1;
    if (tag != nullptr && *tag != '\0')
        std::printf("[%lld/%d/%d %02d:%02d:%02d.%06d] [%s][%s] ", year, month, local.tm_mday, local.tm_hour,
                    local.tm_min, local.tm_sec, microseconds, name, tag);
    else
        std::printf("[%lld/%d/%d %02d:%02d:%02d.%06d] [%s] ", year, month, local.tm_mday, local.tm_hour, local.tm_min,
                    local.tm_sec, microseconds, name);
}

//  Prints one record and a line feed. Returns the result of vprintf for its text.
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
