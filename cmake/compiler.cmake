#  Flags that hold for every target: language level, warnings, sanitizers, output places.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

#  NDEBUG is defined in no build type: the allocator's assertion is part of the program.
set(CMAKE_CXX_FLAGS_RELEASE "-O2")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g")
set(CMAKE_CXX_FLAGS_MINSIZEREL "-Os")
set(CMAKE_CXX_FLAGS_DEBUG "-Og -g")

#  The client library is found by its relative name, never by a path of the build machine.
set(CMAKE_SKIP_RPATH ON)

#  The executable finds its client library and its ini file beside itself.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(ADDRPUBD_WERROR)
    add_compile_options(-Werror)
endif()
if(ADDRPUBD_CHECK)
    add_compile_definitions(OLK_CHECK)
endif()
#  Hardening, of every product and the tests of it alike. A sanitizer checks more and does not go together with it.
#  - Immediate binding and a read-only relocation table; an executable at a random place, and no executable stack.
#  - Stack protector, stack probes page by page, landing pads for indirect jumps.
#  - With ADDRPUBD_FORTIFY, checked variants of the C library's functions. Packages are built so; the unit tests are not,
#    because they replace the plain functions. A level that a compiler or a distribution has set is overruled.
if(NOT ADDRPUBD_SANITIZE)
    include(CheckPIESupported)
    check_pie_supported(LANGUAGES CXX)
    add_compile_options(-fstack-protector-strong -fstack-clash-protection -fcf-protection=full)
    add_compile_options(-U_FORTIFY_SOURCE)
    if(ADDRPUBD_FORTIFY)
        add_compile_options(-D_FORTIFY_SOURCE=2)
    endif()
    add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
endif()
if(ADDRPUBD_SANITIZE)
    add_compile_options(-fsanitize=${ADDRPUBD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${ADDRPUBD_SANITIZE})
endif()
