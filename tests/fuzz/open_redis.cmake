#  The back end redis. The target replaces its socket calls.
get_target_property(open_definitions rdbapi_open COMPILE_DEFINITIONS)
if("RDBOPEN_WITH_REDIS" IN_LIST open_definitions)
    addrpubd_fuzz_target(redis RUNS 25000 SOURCES redis_fuzz.cpp LIBS rdbapi_open)
    foreach(call connect send recv)
        target_link_options(redis_fuzz PRIVATE LINKER:--wrap=${call})
    endforeach()
endif()
