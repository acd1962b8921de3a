#  Checks of the source text, defined as ctest tests. If a tool is not installed, its check is left out with a status
#  message.

find_program(CLANG_FORMAT clang-format)
find_program(CLANG_TIDY clang-tidy)
find_program(SHELLCHECK shellcheck)

if(CLANG_FORMAT)
    add_test(NAME lint.format COMMAND ${PROJECT_SOURCE_DIR}/tests/support/check_format ${CLANG_FORMAT})
else()
    message(STATUS "format check left out: clang-format is not installed")
endif()

#  addrpubd_tidy(NAME FOLDER... [-FOLDER...]): defines the test lint.tidy.NAME, which passes the folders to check_tidy.
function(addrpubd_tidy name)
    add_test(NAME lint.tidy.${name}
        COMMAND ${PROJECT_SOURCE_DIR}/tests/support/check_tidy ${CLANG_TIDY} ${CMAKE_BINARY_DIR} ${ARGN})
    set_tests_properties(lint.tidy.${name} PROPERTIES COST 1000 TIMEOUT 900)
endfunction()

if(CLANG_TIDY)
    addrpubd_tidy(service com service)
    addrpubd_tidy(tools tools)
    #  Each back end is checked separately, because it may define the same local name as the library or as another back
    #  end. linked_modules.cpp is checked with dryrun, because it defines the same functions as loaded_modules.cpp.
    get_property(back_ends GLOBAL PROPERTY ADDRPUBD_BACK_END_FOLDERS)
    list(REMOVE_DUPLICATES back_ends)
    set(apart rdbapi/open/dryrun rdbapi/open/module/linked_modules.cpp)
    addrpubd_tidy(dryrun ${apart})
    foreach(back_end ${back_ends})
        addrpubd_tidy(${back_end} rdbapi/open/${back_end})
        list(APPEND apart rdbapi/open/${back_end})
    endforeach()
    list(TRANSFORM apart PREPEND -)
    addrpubd_tidy(rdbapi rdbapi ${apart})
else()
    message(STATUS "tidy check left out: clang-tidy is not installed")
endif()

if(SHELLCHECK)
    add_test(NAME lint.shell COMMAND ${PROJECT_SOURCE_DIR}/tests/support/check_shell ${SHELLCHECK})
else()
    message(STATUS "shell check left out: shellcheck is not installed")
endif()

get_property(tests DIRECTORY PROPERTY TESTS)
list(FILTER tests INCLUDE REGEX "^lint[.]")
set_tests_properties(${tests} PROPERTIES LABELS lint)
