#  The two parsers of the service, and its address list. They are linked with the recording client library, because the
#  service's objects refer to the functions of a client library.

addrpubd_fuzz_target(ini RUNS 30000 SOURCES ini_fuzz.cpp LIBS service recording_rdb)
addrpubd_fuzz_target(ports RUNS 100000 SOURCES ports_fuzz.cpp LIBS service recording_rdb)
addrpubd_fuzz_target(address_filter RUNS 50000 SOURCES address_filter_fuzz.cpp LIBS service recording_rdb)
foreach(call getifaddrs freeifaddrs)
    target_link_options(address_filter_fuzz PRIVATE LINKER:--wrap=${call})
endforeach()
