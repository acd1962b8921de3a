#  The back end redis. The fuzz target replaces the socket calls.
if(TARGET rdbopen_redis)
    addrpubd_fuzz_target(redis RUNS 25000 SOURCES redis_fuzz.cpp LIBS rdbapi_open)
    foreach(call connect send recv)
        target_link_options(redis_fuzz PRIVATE LINKER:--wrap=${call})
    endforeach()
endif()
