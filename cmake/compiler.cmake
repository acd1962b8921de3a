#  Compiler and linker flags of all targets: language level, warnings, hardening, sanitizers, output folders.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

#  No build type defines NDEBUG: the allocator's assertion is part of the program.
set(CMAKE_CXX_FLAGS_RELEASE "-O2")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g")
set(CMAKE_CXX_FLAGS_MINSIZEREL "-Os")
set(CMAKE_CXX_FLAGS_DEBUG "-Og -g")
if(ADDRPUBD_SANITIZE)
    set(CMAKE_CXX_FLAGS_DEBUG "-Og -g1")  # line numbers are enough for reports; files have a third of the size
endif()

#  The client library is loaded by its relative name, never by a path of the build machine.
set(CMAKE_SKIP_RPATH ON)

#  The executable and its client library and ini file are in one folder.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
#  With ADDRPUBD_UNITY, the files of a library of rdbapi and of tools are compiled as one file: the code becomes a few
#  percent smaller. In service and com, each file is compiled separately, because tests replace functions there.
set(CMAKE_UNITY_BUILD_BATCH_SIZE 0)
if(ADDRPUBD_WERROR)
    add_compile_options(-Werror)
endif()
if(ADDRPUBD_CHECK)
    add_compile_definitions(OLK_CHECK)
endif()
#  Hardening of all products and tests. Builds with a sanitizer do not use these flags.
#  - Symbols are bound at the start, the relocation table is read-only, executables are position-independent, and the
#    stack is not executable.
#  - Functions with buffers have a stack protector, each page of a large stack frame is probed, and targets of indirect
#    jumps are marked. On arm64 return addresses are also signed.
#  - With ADDRPUBD_FORTIFY, the programs call checked variants of C library functions. Packages are built with
#    ADDRPUBD_FORTIFY, unit tests without it, because they replace the unchecked functions. The option overrides the
#    default level of the compiler or distribution.
if(NOT ADDRPUBD_SANITIZE)
    include(CheckPIESupported)
    check_pie_supported(LANGUAGES CXX)
    add_compile_options(-fstack-protector-strong -fstack-clash-protection)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
        add_compile_options(-mbranch-protection=standard)
    else()
        add_compile_options(-fcf-protection=full)
    endif()
    add_compile_options(-U_FORTIFY_SOURCE)
    if(ADDRPUBD_FORTIFY)
        add_compile_options(-D_FORTIFY_SOURCE=2)
    endif()
    add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
endif()
if(ADDRPUBD_SANITIZE)
    add_compile_options(-fsanitize=${ADDRPUBD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${ADDRPUBD_SANITIZE})
    find_program(LLD ld.lld)
    if(LLD)
        add_link_options(-fuse-ld=lld)  # a fifth of the time of GNU ld
    endif()
endif()
