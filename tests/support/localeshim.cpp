//  Preloaded into a program under test: the locale that its environment names is in force before its main.
//
//  ADDRPUBD_DECIMAL_MARK says what that locale writes between units and tenths. A program in which something else is in
//  force says so and ends with status 125, so that no test passes in another locale than it believes.
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
