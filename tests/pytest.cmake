#  addrpubd_pytest(KIND)
#
#  Defines tests for the files test_*.py of the current folder, which need private namespaces. Each file is a ctest
#  test with the label KIND. It also has the label dns or redis if it or its cases import a module dns_* or
#  redis_*, or if its name contains _dns or _redis; and the label nth_failure if its name contains nth_failure. Tests
#  that are marked with a subject (refusal, retry, failover), in the file or in its cases, form a separate ctest test
#  with that label. The file's own ctest test has the remaining tests, if there are any. If a file has both labels dns
#  and redis, a comment after the mark names the server of the marked tests: @pytest.mark.refusal  # redis.

set(ADDRPUBD_TIMEOUT 900 CACHE STRING "Time limit of a test file that pytest runs, in seconds")
set(python /usr/bin/python3)
set(namespaces unshare --mount --ipc --net --pid --fork --mount-proc)
set(subjects refusal retry failover)

#  Each check is a command. It succeeds if the tests can run.
execute_process(COMMAND ${python} -c "import pytest" RESULT_VARIABLE no_pytest OUTPUT_QUIET ERROR_QUIET)
execute_process(COMMAND ${namespaces} ip link set lo up RESULT_VARIABLE no_namespaces OUTPUT_QUIET ERROR_QUIET)

#  text_with_cases(FILE VARIABLE): reads the text of a test file and of the modules NAME_cases.py whose classes it runs.
function(text_with_cases file variable)
    file(READ ${file} text)
    cmake_path(GET file PARENT_PATH folder)
    string(REGEX MATCHALL "from [a-z_]+_cases import [^\n]*Cases" imports "${text}")
    foreach(import IN LISTS imports)
        string(REGEX REPLACE "from ([a-z_]+) import.*" "\\1" module "${import}")
        file(READ ${folder}/${module}.py cases)
        string(APPEND text "${cases}")
    endforeach()
    set(${variable} "${text}" PARENT_SCOPE)
endfunction()

function(addrpubd_pytest kind)
    if(no_pytest)
        message(STATUS "${kind} tests left out: pytest (python3-pytest) is not installed")
        return()
    endif()
    if(no_namespaces)
        message(STATUS "${kind} tests left out: no right to make namespaces (not root), or unshare or ip is missing")
        return()
    endif()
    if(ADDRPUBD_SANITIZE)
        message(STATUS "${kind} tests left out: a sanitizer's run-time library does not allow preloading the clock")
        return()
    endif()

    file(GLOB files CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.py)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${files})
    list(FILTER files INCLUDE REGEX "/test_[^/]*$")
    foreach(file ${files})
        cmake_path(GET file STEM name)
        text_with_cases(${file} text)
        set(labels ${kind})
        foreach(service dns redis)
            if(text MATCHES "import ${service}_|from ${service}_" OR name MATCHES "_${service}")
                list(APPEND labels ${service})
            endif()
        endforeach()
        #  The longest tests start first: at the end one of them would run alone.
        set(cost 0)
        if(name MATCHES "_420_redis|_440_bind|_747_redis|_746_redis|_195_single|_628_long")
            set(cost 500)
        endif()
        if(name MATCHES "nth_failure")
            list(APPEND labels nth_failure)
            set(cost 1000)
        endif()
        set(marked "")
        foreach(subject ${subjects})
            if(text MATCHES "pytest[.]mark[.]${subject}")
                list(APPEND marked ${subject})
            endif()
        endforeach()
        #  Removes the marked tests. A mark is in the line above its test or above another decorator.
        list(JOIN subjects "|" any)
        string(REGEX REPLACE "@pytest[.]mark[.](${any})[^\n]*\n *(@[^\n]*\n *)*def test_" "" others "${text}")
        if(others MATCHES "def test_" OR NOT marked)
            list(PREPEND marked none)
        endif()
        foreach(subject ${marked})
            set(test ${kind}.${name})
            set(chosen "")
            set(subject_label "")
            set(of_test ${labels})
            string(REGEX MATCHALL "pytest[.]mark[.]${subject}  # (dns|redis)" named "${text}")
            if(named)
                list(REMOVE_ITEM of_test dns redis)
                list(TRANSFORM named REPLACE ".* # " "")
                list(APPEND of_test ${named})
            endif()
            if(NOT subject STREQUAL none)
                string(APPEND test .${subject})
                set(chosen -m ${subject})
                set(subject_label ${subject})
            elseif(NOT marked STREQUAL none)
                list(JOIN subjects " or " any)
                set(chosen -m "not (${any})")
            endif()
            add_test(NAME ${test} COMMAND ${python} -B -m pytest -q -p no:cacheprovider ${chosen} ${file})
            set_tests_properties(${test} PROPERTIES
                ENVIRONMENT "ADDRPUBD_BUILD=${CMAKE_BINARY_DIR}"
                SKIP_RETURN_CODE 77
                TIMEOUT ${ADDRPUBD_TIMEOUT}
                COST ${cost}
                LABELS "${of_test};${subject_label}")
        endforeach()
    endforeach()
endfunction()
