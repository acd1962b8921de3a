//  A program that does only what the start of each command needs with the support library. The library's allocator is
//  constructed before main and destroyed after main. main reads the time zone, as the service does for each command.
#include "olk_allocator.h"

#include <ctime>

int main() {
    auto* volatile linked = olk::get_olk_allocator();  // without this use the linker would remove the allocator
    tzset();
    return linked == nullptr ? 1 : 0;
}
