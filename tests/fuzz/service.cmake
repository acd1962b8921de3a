#  The service's three parsers. Beside the service they link the recording client library, which its objects ask for.

addrpubd_fuzz_target(ini RUNS 30000 SOURCES ini_fuzz.cpp LIBS service recording_rdb)
addrpubd_fuzz_target(ports RUNS 100000 SOURCES ports_fuzz.cpp LIBS service recording_rdb)
addrpubd_fuzz_target(address_filter RUNS 50000 SOURCES address_filter_fuzz.cpp LIBS service recording_rdb)
foreach(call getifaddrs freeifaddrs)
    target_link_options(address_filter_fuzz PRIVATE LINKER:--wrap=${call})
endforeach()
