#  Checks of the source text, defined as ctest tests. If a tool is not installed, its check is left out with a status
#  message.

find_program(CLANG_FORMAT clang-format)
find_program(RUN_CLANG_TIDY run-clang-tidy)
find_program(SHELLCHECK shellcheck)

if(CLANG_FORMAT)
    add_test(NAME lint.format COMMAND ${PROJECT_SOURCE_DIR}/tests/support/check_format ${CLANG_FORMAT})
else()
    message(STATUS "format check left out: clang-format is not installed")
endif()

if(RUN_CLANG_TIDY)
    #  The compile commands may be those of g++. clang-tidy does not know all warning options of g++.
    foreach(folder com service rdbapi tools)
        add_test(NAME lint.tidy.${folder}
            COMMAND ${RUN_CLANG_TIDY} -quiet -p ${CMAKE_BINARY_DIR}
                -extra-arg=-Wno-unknown-warning-option "${PROJECT_SOURCE_DIR}/${folder}/.*[.]cpp")
        set_tests_properties(lint.tidy.${folder} PROPERTIES COST 1000)
    endforeach()
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
