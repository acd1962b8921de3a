#  ADDRPUBD_COVERAGE: counts which code of service/ or com/olklib3/ is executed. This file is included before any target
#  is defined. The tests are counted too: the linker keeps only one copy of a template or inline function, and this copy
#  may come from a test. Libraries that a program loads are not counted.

if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "ADDRPUBD_COVERAGE is for clang++")
endif()

set(counted com/olklib3 service tests/unit/olklib3 tests/unit/service)
list(TRANSFORM counted PREPEND ${PROJECT_SOURCE_DIR}/)
set(is_counted $<IN_LIST:$<TARGET_PROPERTY:SOURCE_DIR>,$<JOIN:${counted},$<SEMICOLON>>>)

#  %m: one file for each program. %c: the file is mapped into memory and contains the counters while the program runs.
#  So _exit, abort and fatal signals lose no count, and a child of fork counts in the same file.
set(counters ${CMAKE_BINARY_DIR}/counters)
add_compile_options("$<${is_counted}:-O0;-fcoverage-mapping;-fprofile-instr-generate=${counters}/%m%c.profraw>")
add_compile_options("$<${is_counted}:SHELL:-mllvm -runtime-counter-relocation>")
set(is_program $<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>)
add_link_options("$<${is_program}:-fprofile-instr-generate>")

#  clang++ rejects a precompiled header of another level of optimisation. The precompiled header of the unit tests would
#  be compiled without the options above.
set(CMAKE_DISABLE_PRECOMPILE_HEADERS ON)

#  counted_programs: the target that scripts/coverage builds. It consists of addrpubd, the unit tests of com/olklib3 and
#  of the service, and the targets of tests/support.
function(add_counted_programs)
    add_custom_target(counted_programs DEPENDS addrpubd)
    foreach(folder tests/unit/olklib3 tests/unit/service tests/support)
        get_property(programs DIRECTORY ${PROJECT_SOURCE_DIR}/${folder} PROPERTY BUILDSYSTEM_TARGETS)
        add_dependencies(counted_programs ${programs})
    endforeach()
endfunction()
cmake_language(DEFER CALL add_counted_programs)
