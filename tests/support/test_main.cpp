//  The main of every unit test program: the tests run in the locale that the environment names.
//
//  ADDRPUBD_DECIMAL_MARK, when set, is what that locale has to write between units and tenths, so that no test passes in
//  another one than it is believed to run in.
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
