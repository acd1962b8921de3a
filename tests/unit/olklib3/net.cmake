#  Tests of urls, name resolution and the UDP log.

set(resolver_calls getaddrinfo freeaddrinfo inet_ntop)

addrpubd_unit_test(olk_url_test ONE_THREAD
    SOURCES
        fake_resolver.cpp
        url_table.cpp
        olk_resolve_test.cpp
        olk_url_test.cpp
    APART olk_url_model_test.cpp
    LIBS olklib3
    WRAP ${resolver_calls}
    DEFINES TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data")

addrpubd_unit_test(olk_udplog_test
    SOURCES
        fake_sockets.cpp
        olk_udplog_test.cpp
        olk_udplog_open_test.cpp
    APART fake_resolver.cpp
    LIBS olklib3
    WRAP ${resolver_calls} socket setsockopt fcntl sendto shutdown close inet_pton snprintf
        malloc _Znwm _ZN3olk9allocator7malloc_EmPm)
