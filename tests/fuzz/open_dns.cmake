#  Answers to the back end dns of the open client library: those of its server, and those of the system's resolver.
if(TARGET rdbopen_dns)
    find_package(OpenSSL REQUIRED)
    addrpubd_fuzz_target(open_dns RUNS 8000
        SOURCES open_dns_fuzz.cpp ${PROJECT_SOURCE_DIR}/tests/unit/client/open_dns_support.cpp
        LIBS rdbapi_open)
    target_include_directories(open_dns_fuzz PRIVATE ${PROJECT_SOURCE_DIR}/tests/unit/client)
    target_link_libraries(open_dns_fuzz PRIVATE ${OPENSSL_CRYPTO_LIBRARY})

    addrpubd_fuzz_target(open_primary RUNS 20000
        SOURCES open_primary_fuzz.cpp ${PROJECT_SOURCE_DIR}/tests/unit/client/open_dns_support.cpp
        LIBS rdbapi_open)
    target_include_directories(open_primary_fuzz PRIVATE ${PROJECT_SOURCE_DIR}/tests/unit/client)
    target_link_libraries(open_primary_fuzz PRIVATE ${OPENSSL_CRYPTO_LIBRARY})
endif()
