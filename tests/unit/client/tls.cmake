#  TLS of the open client library.
if(NOT TARGET rdbopen_tls)
    return()
endif()

add_library(open_tls_support STATIC open_tls_support.cpp)
target_include_directories(open_tls_support PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(open_tls_support PUBLIC rdbapi_open rdbopen_tls)

addrpubd_unit_test(open_tls_stream_test NOT_UNDER_VALGRIND
    SOURCES open_tls_stream_test.cpp
    LIBS open_tls_support
    WRAP clock_gettime ioctl recv send socket SSL_get_error SSL_read_ex X509_get_default_cert_dir)

if(TARGET rdbopen_rediss AND TARGET rdbopen_dns-tls)
    addrpubd_unit_test(open_tls_backend_test
        SOURCES open_tls_backend_test.cpp open_fake_redis.cpp open_quiet_syslog.cpp
        LIBS open_tls_support open_dns_support
        WRAP sendto)
endif()

if(TARGET rdbopen_rediss)
    addrpubd_unit_test(open_tls_signal_test NOT_UNDER_VALGRIND
        SOURCES open_tls_signal_test.cpp open_fake_redis.cpp open_quiet_syslog.cpp
        LIBS open_tls_support
        WRAP sendto)
endif()

if(TARGET rdbopen_dyndns2-https)
    addrpubd_unit_test(open_backend_dyndns2_test NOT_UNDER_VALGRIND
        SOURCES open_backend_dyndns2_test.cpp
        LIBS open_tls_support rdbopen_dyndns2-https
        WRAP clock_gettime)
endif()
