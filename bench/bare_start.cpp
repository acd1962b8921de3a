//  The minimum of a start with the support library. Its allocator is constructed before main and destroyed after it.
//  main reads the time zone, as the service does for each command word.
#include "olk_allocator.h"

#include <ctime>

int main() {
    auto* volatile linked = olk::get_olk_allocator();  // without this use the linker would remove the allocator
    tzset();
    return linked == nullptr ? 1 : 0;
}
