#  The back end redis. The fuzz targets replace connect, send and recv.
if(TARGET rdbopen_redis)
    addrpubd_fuzz_target(redis RUNS 25000 SOURCES redis_fuzz.cpp LIBS rdbapi_open)
    foreach(call connect send recv)
        target_link_options(redis_fuzz PRIVATE LINKER:--wrap=${call})
    endforeach()

    #  The servers are a cluster, or Sentinels and a master. Every server name resolves to 127.0.0.1.
    addrpubd_fuzz_target(redis_cluster RUNS 8000 SOURCES redis_cluster_fuzz.cpp LIBS rdbapi_open)
    foreach(call connect send recv getaddrinfo)
        target_link_options(redis_cluster_fuzz PRIVATE LINKER:--wrap=${call})
    endforeach()
endif()
