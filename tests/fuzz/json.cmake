#  The JSON parser is no subject of the run: it counts for no coverage.

add_library(json_oracle STATIC json_oracle.cpp)
addrpubd_fuzz_target(json RUNS 30000 SOURCES json_fuzz.cpp LIBS olklib3)
target_link_libraries(json_fuzz PRIVATE json_oracle)
