#  addrpubd-check, without name resolution.

addrpubd_fuzz_target(check RUNS 800 SOURCES check_fuzz.cpp LIBS addrpubd_check rdbapi_open)
target_link_options(check_fuzz PRIVATE LINKER:--wrap=getaddrinfo)

#  addrpubd-check --status.
addrpubd_fuzz_target(state RUNS 2500 SOURCES state_fuzz.cpp LIBS addrpubd_check rdbapi_open)
