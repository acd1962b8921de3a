#  Tests of urls, name resolution, the UDP log, the control queue, the background start, -stop and -status.

set(resolver_calls getaddrinfo freeaddrinfo inet_ntop)

addrpubd_unit_test(olk_url_test
    SOURCES
        fake_resolver.cpp
        url_table.cpp
        olk_resolve_test.cpp
        olk_url_test.cpp
    APART olk_url_model_test.cpp
    LIBS olklib3
    WRAP ${resolver_calls})
target_compile_definitions(olk_url_test PRIVATE TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data")

addrpubd_unit_test(olk_udplog_test
    SOURCES
        fake_sockets.cpp
        olk_udplog_test.cpp
        olk_udplog_open_test.cpp
    APART fake_resolver.cpp
    LIBS olklib3
    WRAP ${resolver_calls} socket setsockopt fcntl sendto shutdown close inet_pton snprintf
        malloc _Znwm _ZN3olk9allocator7malloc_EmPm)

#  Service control without a second process: all system calls go through fake_process.cpp.
addrpubd_unit_test(service_background_test
    SOURCES
        fake_process.cpp
        no_memory.cpp
        msgqueue_test.cpp
        background_test.cpp
        control_test.cpp
    LIBS service recording_rdb
    WRAP fork setsid chdir umask dup2 open close fcntl msgget msgsnd msgrcv msgctl usleep sleep kill signal exit malloc
        _ZN7CRunCls5startEv _ZN7CRunCls11publishOnceEv
        _ZN3olk9allocator7malloc_EmPm _ZN3olk9allocator5free_EPv)
