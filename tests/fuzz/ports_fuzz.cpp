//  Compares the port list parser with an independent parser.
#include "fuzz_input.h"
#include "port_list_model.h"
#include "runcls.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string list = fuzz_input(data, size).all();
    olk::vector_<std::uint16_t> ports;
    ports.push_back(1);
    parsePortList(list, ports);
    require(std::vector<std::uint16_t>(ports.begin(), ports.end()) == modelPorts(list), "both parsers agree");
    return 0;
}
