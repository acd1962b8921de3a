#  The service. Every call that it makes to the system passes through service_platform.cpp.

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
    daemon_test.cpp daemon_signal_test.cpp)
target_link_options(service_control_test PRIVATE LINKER:--wrap=pause,--wrap=malloc)
