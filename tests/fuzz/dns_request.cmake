#  The fuzz target of the update requests that the service sends. The model is compiled without coverage, so libFuzzer
#  does not search for inputs that reach new code of the model.
find_package(nlohmann_json 3.10 QUIET)
if(nlohmann_json_FOUND)
    add_library(dns_request_model STATIC dns_request_model.cpp)
    target_link_libraries(dns_request_model PRIVATE nlohmann_json::nlohmann_json)
    addrpubd_fuzz_target(dns_request RUNS 20000 SOURCES dns_request_fuzz.cpp LIBS rdbapi_open)
    target_link_libraries(dns_request_fuzz PRIVATE dns_request_model)
endif()
