#  Tests of the open client library. A back end is tested if it is built.

addrpubd_unit_test(open_parts_test
    SOURCES open_backend_log_test.cpp open_backoff_test.cpp open_file_path_test.cpp open_retry_schedule_test.cpp
        open_secret_test.cpp
        open_url_test.cpp open_wanted_test.cpp
    LIBS rdbapi_open
    WRAP sendto)

addrpubd_unit_test(open_report_test
    SOURCES open_report_test.cpp open_syslog_line_test.cpp
    LIBS rdbapi_open
    WRAP sendto)

addrpubd_unit_test(open_reason_log_test
    SOURCES open_reported_reasons_test.cpp
    LIBS rdbapi_open
    WRAP sendto)

addrpubd_unit_test(open_tcp_stream_test
    SOURCES open_tcp_stream_test.cpp
    LIBS rdbapi_open
    WRAP connect getsockopt poll recv send socket)

addrpubd_unit_test(open_server_addresses_test
    SOURCES open_server_addresses_test.cpp
    LIBS rdbapi_open
    WRAP clock_gettime getaddrinfo)

addrpubd_unit_test(open_worker_test
    SOURCES open_worker_test.cpp open_worker_wanted_test.cpp open_worker_tag_test.cpp open_worker_wraps.cpp
    LIBS rdbapi_open
    WRAP clock_gettime nanosleep poll pthread_cond_clockwait pthread_create sendto _Znwm)

addrpubd_unit_test(open_handle_table_test
    SOURCES open_handle_table_test.cpp
    LIBS rdbapi_open
    WRAP eventfd)

addrpubd_unit_test(open_rdbapi_test
    SOURCES open_rdbapi_test.cpp open_signal_test.cpp
    LIBS rdbapi_open
    WRAP sendto)

addrpubd_unit_test(open_signal_embedded_test
    SOURCES open_signal_embedded_test.cpp open_quiet_syslog.cpp
    LIBS rdbapi_open
    WRAP sendto)

addrpubd_unit_test(open_exit_test
    SOURCES open_exit_test.cpp open_quiet_syslog.cpp
    LIBS rdbapi_open
    WRAP sendto)

addrpubd_unit_test(open_library_test
    SOURCES open_library_test.cpp
    LIBS rdbapi_interface ${CMAKE_DL_LIBS})
add_dependencies(open_library_test rdbapix64)
get_property(back_ends GLOBAL PROPERTY ADDRPUBD_BACK_ENDS)
list(JOIN back_ends " " back_ends)
target_compile_definitions(open_library_test PRIVATE LIBRARY_PATH="$<TARGET_FILE:rdbapix64>"
    LIBRARY_FOLDER="$<TARGET_FILE_DIR:rdbapix64>" BACK_ENDS="${back_ends}")
if(ADDRPUBD_SANITIZE)
    target_compile_definitions(open_library_test PRIVATE SANITIZED)
endif()

find_package(SQLite3 QUIET)
if(SQLite3_FOUND)
    addrpubd_unit_test(open_sqlite_test
        SOURCES open_backend_sqlite_test.cpp open_sqlite_creation_test.cpp open_sqlite_damage_test.cpp
                open_sqlite_files_test.cpp
            open_recorded_disk.cpp open_quiet_syslog.cpp
        LIBS rdbapi_open
        WRAP sendto)
endif()

find_package(nlohmann_json 3.10 QUIET)
if(nlohmann_json_FOUND)
    addrpubd_unit_test(open_hosts_test
        SOURCES open_hosts_file_test.cpp open_dns_request_test.cpp open_backend_hosts_test.cpp
            open_quiet_syslog.cpp
        LIBS rdbapi_open
        WRAP sendto fsync)
    addrpubd_unit_test(open_file_test
        SOURCES open_file_replace_test.cpp open_file_lock_test.cpp
        LIBS rdbapi_open
        WRAP open write fsync rename fchmod fchown flock nanosleep clock_gettime)
endif()
