#  The back end redis, with the socket calls in the target's hands.

if(NOT HIREDIS_INCLUDE OR NOT HIREDIS_LIBRARY)
    return()
endif()

addrpubd_fuzz_target(redis SOURCES redis_fuzz.cpp LIBS rdbapi_open)
foreach(call connect send recv)
    target_link_options(redis_fuzz PRIVATE LINKER:--wrap=${call})
endforeach()
