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
if(ADDRPUBD_SANITIZE)
    add_compile_options(-fsanitize=${ADDRPUBD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${ADDRPUBD_SANITIZE})
endif()
