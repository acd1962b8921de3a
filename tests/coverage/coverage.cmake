#  ADDRPUBD_COVERAGE: the programs that hold code of service/ or com/olklib3/ count what runs. Included before any
#  target. The tests are counted, too: of a template or an inline function that several objects hold, the linker keeps
#  one. Libraries that a program loads are not.

if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU" OR NOT CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    message(FATAL_ERROR "ADDRPUBD_COVERAGE is for g++ on x86-64")
endif()

set(counted com/olklib3 service tests/unit)
list(TRANSFORM counted PREPEND ${PROJECT_SOURCE_DIR}/)
set(is_counted $<IN_LIST:$<TARGET_PROPERTY:SOURCE_DIR>,$<JOIN:${counted},$<SEMICOLON>>>)

#  - The list of counters in a section of its own: counters.cpp reads it.
#  - Exact in threads, too.
#  - fork stays the system's; the compiler would put a function of its run-time library in its place.
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

#  counted_programs: what scripts/coverage builds. Of the unit tests those of the two folders.
function(add_counted_programs)
    add_custom_target(counted_programs DEPENDS addrpubd)
    foreach(folder tests/unit tests/support)
        get_property(programs DIRECTORY ${PROJECT_SOURCE_DIR}/${folder} PROPERTY BUILDSYSTEM_TARGETS)
        list(FILTER programs EXCLUDE REGEX "^(open|tools)_")
        add_dependencies(counted_programs ${programs})
    endforeach()
endfunction()
cmake_language(DEFER CALL add_counted_programs)
