#  Tests of the allocator. One program records the calls that mapping_spy.h lists and can make mappings fail.

addrpubd_unit_test(olk_alloctor_test
    SOURCES
        mapping_spy.cpp
        olk_spinlock_test.cpp
        olk_mapping_test.cpp
        olk_objalloctor_model_test.cpp
        olk_blk_alloctor_test.cpp
        olk_blk_release_test.cpp
        olk_blk_model_test.cpp
        olk_allocator_test.cpp
        olk_allocator_table_test.cpp
        olk_allocator_limit_test.cpp
        olk_allocator_threads_test.cpp
        olk_allocator_exit_test.cpp
        olk_valid_test.cpp
        olk_vector_test.cpp
    APART olk_objalloctor_test.cpp olk_allocator_build_test.cpp olk_allocator_model_test.cpp
    LIBS olklib3
    WRAP mmap munmap sysconf
        pthread_spin_init pthread_spin_destroy pthread_spin_lock pthread_spin_unlock)

#  Each program prints the calls of mmap, munmap and mallopt that the library makes. The four programs differ in the
#  link order: exit_order_one and exit_order_two in both orders, before or after the library.
set(exit_order_calls mmap munmap mallopt)
function(exit_order_program name)
    add_executable(${name} ${ARGN})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
    target_link_libraries(${name} PRIVATE olklib3)
    list(TRANSFORM exit_order_calls PREPEND LINKER:--wrap= OUTPUT_VARIABLE wraps)
    target_link_options(${name} PRIVATE ${wraps})
    add_dependencies(olk_alloctor_test ${name})
endfunction()
exit_order_program(exit_order_one_two_library exit_order_one.cpp exit_order_two.cpp exit_order_main.cpp)
exit_order_program(exit_order_two_one_library exit_order_two.cpp exit_order_main.cpp exit_order_one.cpp)
exit_order_program(exit_order_library_one_two exit_order_one.cpp exit_order_two.cpp exit_order_main.cpp)
exit_order_program(exit_order_library_two_one exit_order_two.cpp exit_order_main.cpp exit_order_one.cpp)
foreach(name exit_order_library_one_two exit_order_library_two_one)
    #  Link options precede the objects on the command line, so the library comes first.
    target_link_options(${name} PRIVATE
        LINKER:--whole-archive $<TARGET_FILE:olklib3> LINKER:--no-whole-archive)
    add_dependencies(${name} olklib3)
    set_target_properties(${name} PROPERTIES LINK_DEPENDS $<TARGET_FILE:olklib3>)
endforeach()

#  In a build for another processor an emulator runs the programs.
list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
string(STRIP "${emulator} ${CMAKE_BINARY_DIR}/tests/exit_order_" exit_order_command)
target_compile_definitions(olk_alloctor_test PRIVATE
    TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data"
    EXIT_ORDER_COMMAND="${exit_order_command}")

#  For an unsupported kind of processor, olk_mapping.h must not compile, and the message must name the reason. The tests
#  set a macro as the compiler for such a processor does.
foreach(processor of_32_bits:__SIZEOF_POINTER__=4 that_is_big_endian:__BYTE_ORDER__=__ORDER_BIG_ENDIAN__)
    string(REGEX MATCH "(.*):(.*)=(.*)" all ${processor})
    add_test(NAME olk_platform.a_processor_${CMAKE_MATCH_1}_is_refused
        COMMAND ${CMAKE_CXX_COMPILER} -std=c++20 -fsyntax-only -w -U${CMAKE_MATCH_2} -D${CMAKE_MATCH_2}=${CMAKE_MATCH_3}
            -x c++ ${PROJECT_SOURCE_DIR}/com/olklib3/olk_mapping.h)
    set_tests_properties(olk_platform.a_processor_${CMAKE_MATCH_1}_is_refused PROPERTIES LABELS unit
        PASS_REGULAR_EXPRESSION "error: .*addrpubd needs a 64-bit little-endian processor")
endforeach()
