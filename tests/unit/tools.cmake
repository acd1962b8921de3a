#  Tests of addrpubd-check. The system calls go through service_platform.cpp. The service's start is linked with the
#  recording client library.

addrpubd_unit_test(tools_check_test
    SOURCES
        check_test.cpp
        check_model_test.cpp
        ini_lines_test.cpp
        report_test.cpp
        settings_test.cpp
        show_test.cpp
        service_platform.cpp
        service_support.cpp
    LIBS addrpubd_check recording_rdb rdbapi_open
    WRAP ${service_calls})
target_compile_definitions(tools_check_test PRIVATE TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data")
