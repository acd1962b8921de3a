#  Tests of the service. All its system calls go through service_platform.cpp.

set(service_calls
    time localtime_r nanosleep getifaddrs freeifaddrs inet_ntop readlink fopen fclose open fcntl ftruncate write pread getaddrinfo
    socket sleep
    kill _ZN3olk9allocator7malloc_EmPm _ZN3olk9allocator5free_EPv)

function(service_unit_test name)
    addrpubd_unit_test(${name}
        SOURCES ${ARGN} service_platform.cpp service_support.cpp
        LIBS service recording_rdb
        WRAP ${service_calls})
    target_compile_definitions(${name} PRIVATE TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data")
endfunction()

service_unit_test(service_config_test
    inifile_test.cpp inifile_model_test.cpp config_test.cpp config_model_test.cpp localaddr_test.cpp)

service_unit_test(service_publish_test
    service_publish.cpp dnsupdate_test.cpp dnsupdate_limits_test.cpp events_test.cpp publish_test.cpp
    publish_gates_test.cpp publish_records_test.cpp publish_memory_test.cpp publish_model_test.cpp
    publish_threads_test.cpp no_memory.cpp)

service_unit_test(service_control_test
    service_child.cpp no_memory.cpp runcls_test.cpp runcls_layout_test.cpp runcls_memory_test.cpp pidfile_test.cpp
    daemon_test.cpp exitsignal_test.cpp)
target_link_options(service_control_test PRIVATE LINKER:--wrap=pause,--wrap=setitimer,--wrap=malloc)

#  Delivers the exit signal at chosen instructions. The test is a debugger (ptrace), so it cannot run under another one;
#  and it must not interrupt the run-time library of a sanitizer.
if(NOT ADDRPUBD_SANITIZE AND CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
    add_executable(service_ends_test exit_anywhere_test.cpp traced_child.cpp)
    set_target_properties(service_ends_test PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
    target_link_libraries(service_ends_test PRIVATE service test_main)
    target_link_options(service_ends_test PRIVATE
        LINKER:--wrap=time,--wrap=nanosleep,--wrap=getifaddrs,--wrap=freeifaddrs)
    target_compile_definitions(service_ends_test PRIVATE EXIT_ROUNDS=20000)
    gtest_discover_tests(service_ends_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 900 COST 500)
endif()

#  A connect event clears the mark before it sets the flag. Tested in the machine code of this build and in that of each
#  compiler at the usual optimisation levels.
if(NOT ADDRPUBD_SANITIZE)
    add_executable(store_order store_order.cpp)
    set_target_properties(store_order PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
    target_link_libraries(store_order PRIVATE service)
    add_test(NAME store_order.this_build COMMAND store_order)
endif()
foreach(compiler g++ clang++)
    find_program(store_order_${compiler} ${compiler})
    if(store_order_${compiler})
        add_test(NAME store_order.${compiler}
            COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/store_order.sh ${store_order_${compiler}})
    else()
        message(STATUS "order of stores: ${compiler} is not installed, its code is not tested")
    endif()
endforeach()
