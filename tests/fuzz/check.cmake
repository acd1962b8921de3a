#  addrpubd-check. No name is resolved.

addrpubd_fuzz_target(check SOURCES check_fuzz.cpp LIBS addrpubd_check)
target_include_directories(check_fuzz PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
target_link_options(check_fuzz PRIVATE LINKER:--wrap=getaddrinfo)
