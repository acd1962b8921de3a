//  The main function of every unit test program: the tests run in the locale given by the environment.
//
//  ADDRPUBD_DECIMAL_MARK, if set, is the decimal mark of that locale. If it differs, the program fails, so that no test
//  passes in another locale than intended.
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
