//  The minimum of a start with the support library: its allocator is built before main and destroyed after it, and main
//  reads the time zone, as the service does for each command word.
#include "olk_allocator.h"

#include <ctime>

int main() {
    auto* volatile linked = olk::get_olk_allocator();  // without a use, the linker would drop the allocator
    tzset();
    return linked == nullptr ? 1 : 0;
}
