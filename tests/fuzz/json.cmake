#  The JSON parser is the reference, not the subject, so it is compiled without coverage.

add_library(json_oracle STATIC json_oracle.cpp)
addrpubd_fuzz_target(json RUNS 30000 SOURCES json_fuzz.cpp LIBS olklib3)
target_link_libraries(json_fuzz PRIVATE json_oracle)
