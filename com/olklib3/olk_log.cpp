#include "olk_log.h"

#include "olk_allocator.h"

#include <cstdio>
#include <cstdlib>

#include <strings.h>

namespace olk {

namespace {

struct level_row {
    int number;
    const char* name;
};

//  The table is searched from its first row, by number or by name. Two rows deliberately have the number 30; the first
//  of the two rows gives 30 its name.
constexpr level_row level_table[] = {
    {level_err, "err"}, {level_wrn, "wrn"}, {level_inf, "inf"}, {level_inf, "msg"},
    {level_mor, "mor"}, {level_dbg, "dbg"}, {level_all, "all"},
};

}  // namespace

ilog::~ilog() = default;

int ilog::push(int, const char*, const char*, va_list) {
    return 0;
}

void* ilog::operator new(size_t size) noexcept {
    return get_olk_allocator()->malloc_(size, nullptr);
}

void ilog::operator delete(void* p) noexcept {
    get_olk_allocator()->free_(p);
}

void release(ilog* log) {
    if (log != nullptr)
        log->release();
}

const char* level_name(int level, char (&buffer)[level_name_size]) {
    for (const level_row& row : level_table)
        if (row.number == level)
            return row.name;
    const int length = std::snprintf(buffer, sizeof buffer, "%d", level);
    return length >= 0 && length < static_cast<int>(sizeof buffer) ? buffer : "ndf";
}

int level_from_text(const char* text) {
    if (*text == '\0')
        return level_inf;
    for (const level_row& row : level_table)
        if (strcasecmp(row.name, text) == 0)
            return row.number;
    const int number = static_cast<int>(std::strtol(text, nullptr, 10));
    return number != 0 ? number : level_inf;
}

}  // namespace olk
