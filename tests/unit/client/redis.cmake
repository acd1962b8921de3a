#  Tests of the back end redis. open_fake_redis.cpp is a fake server whose answers the tests determine.

if(NOT HIREDIS_INCLUDE OR NOT HIREDIS_LIBRARY)
    return()
endif()

addrpubd_unit_test(open_redis_test
    SOURCES open_redis_reply_test.cpp open_backend_redis_test.cpp open_redis_refusal_test.cpp
        open_redis_socket_test.cpp open_redis_sentinel_test.cpp open_redis_list_test.cpp open_redis_removal_test.cpp
        open_fake_redis.cpp open_quiet_syslog.cpp
    LIBS rdbapi_open
    WRAP sendto)

addrpubd_unit_test(open_redis_slots_test ONE_THREAD
    SOURCES open_redis_slots_test.cpp
    LIBS rdbapi_open
    DEFINES TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data")

addrpubd_unit_test(open_redis_cluster_test
    SOURCES open_redis_cluster_test.cpp open_fake_redis.cpp open_quiet_syslog.cpp
    LIBS rdbapi_open
    WRAP clock_gettime sendto)

addrpubd_unit_test(open_redis_connection_test
    SOURCES open_redis_connection_test.cpp open_fake_redis.cpp
    LIBS rdbapi_open
    WRAP clock_gettime socket connect send recv)

addrpubd_unit_test(open_redis_signal_test NOT_UNDER_VALGRIND
    SOURCES open_redis_signal_test.cpp open_fake_redis.cpp open_quiet_syslog.cpp
    LIBS rdbapi_open
    WRAP sendto)
