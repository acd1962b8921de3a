#  Answers to the back end dns of the open client library.
get_target_property(open_definitions rdbapi_open COMPILE_DEFINITIONS)
if("RDBOPEN_WITH_DNS" IN_LIST open_definitions)
    addrpubd_fuzz_target(open_dns RUNS 8000
        SOURCES open_dns_fuzz.cpp ${PROJECT_SOURCE_DIR}/tests/unit/open_dns_support.cpp
        LIBS rdbapi_open)
    target_include_directories(open_dns_fuzz PRIVATE ${PROJECT_SOURCE_DIR}/tests/unit)
    target_link_libraries(open_dns_fuzz PRIVATE ${OPENSSL_CRYPTO_LIBRARY})
endif()
