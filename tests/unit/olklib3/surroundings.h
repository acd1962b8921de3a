//  Detects the environment in which the test runs. A few tests are not meaningful in every environment.
#ifndef SURROUNDINGS_H
#define SURROUNDINGS_H

#include <cstdlib>
#include <cstring>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define UNDER_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define UNDER_SANITIZER 1
#endif

constexpr bool under_sanitizer() {
#ifdef UNDER_SANITIZER
    return true;
#else
    return false;
#endif
}

//  Valgrind preloads a library of its own into the program.
inline bool under_valgrind() {
    const char* preloaded = std::getenv("LD_PRELOAD");
    return preloaded != nullptr && std::strstr(preloaded, "vgpreload") != nullptr;
}

#endif
