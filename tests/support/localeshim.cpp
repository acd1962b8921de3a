//  Preloaded into a program under test. Before main runs, it sets the locale that the environment names.
//
//  ADDRPUBD_DECIMAL_MARK is the decimal mark of that locale. If the active locale has a different mark, the program
//  prints an error and exits with status 125. So no test passes in a locale with another decimal mark.
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

__attribute__((constructor)) void take_locale() {
    const char* const name = setlocale(LC_ALL, "");
    const char* const mark = getenv("ADDRPUBD_DECIMAL_MARK");
    if (mark == nullptr || strcmp(localeconv()->decimal_point, mark) == 0) {
        return;
    }
    fprintf(stderr, "localeshim: the decimal mark of locale %s is not %s\n", name == nullptr ? "?" : name, mark);
    _exit(125);
}

}  // namespace
