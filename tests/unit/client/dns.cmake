#  The back end dns of the open client library.
if(NOT TARGET rdbopen_dns)
    return()
endif()

#  The tests make signatures with OpenSSL. The back end makes them with Nettle, so the tests also detect errors of
#  Nettle.
find_package(OpenSSL REQUIRED)
add_library(open_dns_support STATIC open_dns_support.cpp)
target_include_directories(open_dns_support PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(open_dns_support PUBLIC rdbapi_open ${OPENSSL_CRYPTO_LIBRARY})

addrpubd_unit_test(open_dns_message_test ONE_THREAD
    SOURCES open_dns_zone_url_test.cpp open_dns_records_test.cpp open_dns_message_test.cpp open_dns_layout_test.cpp
        open_dns_tsig_test.cpp open_local_addresses_test.cpp
    LIBS open_dns_support
    WRAP open read)

addrpubd_unit_test(open_dns_holdings_test
    SOURCES open_dns_holdings_test.cpp
    APART open_dns_permission_test.cpp
    LIBS open_dns_support)

addrpubd_unit_test(open_dns_datagram_test
    SOURCES open_dns_datagram_test.cpp open_quiet_syslog.cpp
    LIBS open_dns_support
    WRAP clock_gettime poll socket send recv)

addrpubd_unit_test(open_dns_test
    SOURCES open_backend_dns_test.cpp open_quiet_syslog.cpp
    APART open_dns_hostile_test.cpp open_dns_pointers_test.cpp open_dns_servers_test.cpp
    LIBS open_dns_support
    WRAP clock_gettime sendto socket send recv open getaddrinfo res_nquery)

addrpubd_unit_test(open_dns_signal_test NOT_UNDER_VALGRIND
    SOURCES open_dns_signal_test.cpp open_quiet_syslog.cpp
    LIBS open_dns_support
    WRAP sendto)
