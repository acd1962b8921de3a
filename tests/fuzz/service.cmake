#  The service's three parsers. Beside the service they link the recording client library, which its objects ask for.

foreach(name ini ports address_filter)
    addrpubd_fuzz_target(${name} SOURCES ${name}_fuzz.cpp LIBS service recording_rdb)
    target_include_directories(${name}_fuzz PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
endforeach()
foreach(call getifaddrs freeifaddrs)
    target_link_options(address_filter_fuzz PRIVATE LINKER:--wrap=${call})
endforeach()
