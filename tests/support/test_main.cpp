//  The main function of every unit test program. The tests run in the locale that the environment names.
//
//  ADDRPUBD_DECIMAL_MARK, if set, is the decimal mark of that locale. If the active locale has a different mark, the
//  program fails. So no test passes in a locale with another decimal mark.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>

namespace {

//  The thread sanitizer of g++ 12 allocates its record of a thread's signals in the thread's first wait. A signal that
//  arrives during this allocation is lost. So the main thread waits once before a test sends it a signal.
void allocateSignalRecord() {
#ifdef __SANITIZE_THREAD__
    poll(nullptr, 0, 0);
#endif
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    const char* const mark = std::getenv("ADDRPUBD_DECIMAL_MARK");
    if (mark != nullptr && std::strcmp(std::localeconv()->decimal_point, mark) != 0) {
        std::fprintf(stderr, "the locale's decimal mark is not %s\n", mark);
        return 1;
    }
    allocateSignalRecord();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
