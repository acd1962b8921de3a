//  The main function of every unit test program. The tests run in the locale that the environment names.
//
//  ADDRPUBD_DECIMAL_MARK, if set, is the decimal mark of that locale. If the active locale has a different mark, the
//  program fails. So no test passes in a locale with another decimal mark.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    const char* const mark = std::getenv("ADDRPUBD_DECIMAL_MARK");
    if (mark != nullptr && std::strcmp(std::localeconv()->decimal_point, mark) != 0) {
        std::fprintf(stderr, "the locale's decimal mark is not %s\n", mark);
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
