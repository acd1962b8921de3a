#  ADDRPUBD_COVERAGE counts which code of service/ and com/olklib3/ is executed. This file must be included before any
#  target. The tests are counted too: the linker keeps only one copy of a template or inline function, which may be the
#  copy in a test. Libraries that a program loads are not counted.

if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU" OR NOT CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    message(FATAL_ERROR "ADDRPUBD_COVERAGE requires g++ on x86-64")
endif()

set(counted com/olklib3 service tests/unit/olklib3 tests/unit/service)
list(TRANSFORM counted PREPEND ${PROJECT_SOURCE_DIR}/)
set(is_counted $<IN_LIST:$<TARGET_PROPERTY:SOURCE_DIR>,$<JOIN:${counted},$<SEMICOLON>>>)

#  - The list of counters is in a separate section, which counters.cpp reads.
#  - Counters are exact with several threads.
#  - fork is the system's function; otherwise the compiler replaces it by a function of its run-time library.
add_compile_options("$<${is_counted}:-O0;-fprofile-arcs;-ftest-coverage;-fprofile-info-section=coverage_info>")
add_compile_options("$<${is_counted}:-fprofile-update=atomic;-fprofile-abs-path;-fno-builtin-fork>")

set(COUNTERS_FOLDER ${CMAKE_BINARY_DIR}/counters)
file(MAKE_DIRECTORY ${COUNTERS_FOLDER})
file(CHMOD ${COUNTERS_FOLDER} PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_WRITE GROUP_EXECUTE WORLD_READ WORLD_WRITE WORLD_EXECUTE)

add_library(coverage_counters STATIC ${CMAKE_CURRENT_LIST_DIR}/counters.cpp)
target_compile_definitions(coverage_counters PRIVATE COUNTERS_FOLDER="${COUNTERS_FOLDER}")
target_link_libraries(coverage_counters PUBLIC gcov)

link_libraries(coverage_counters)
set(is_program $<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>)
add_link_options(
    "$<${is_program}:LINKER:--undefined=addrpubdKeepCountersAtExit>"
    "$<${is_program}:LINKER:--wrap=_exit,--wrap=abort,--wrap=__assert_fail>")

#  counted_programs: the target that scripts/coverage builds. It contains only the unit tests of the two folders.
function(add_counted_programs)
    add_custom_target(counted_programs DEPENDS addrpubd)
    foreach(folder tests/unit/olklib3 tests/unit/service tests/support)
        get_property(programs DIRECTORY ${PROJECT_SOURCE_DIR}/${folder} PROPERTY BUILDSYSTEM_TARGETS)
        add_dependencies(counted_programs ${programs})
    endforeach()
endfunction()
cmake_language(DEFER CALL add_counted_programs)
