//  Compares the port list parser with an independent parser, on generated lists.
#include "port_list_model.h"
#include "runcls.h"

#include <iterator>
#include <random>

#include <gtest/gtest.h>

namespace {

TEST(PortListModel, AgreesWithTheParserOn150000GeneratedLists) {
    static constexpr char alphabet[] = ",,,,0123456789999  \t\r\n-+x\v\0\xFF";
    std::mt19937 random(443);
    std::uniform_int_distribution<std::size_t> length(0, 90), pick(0, std::size(alphabet) - 2);
    olk::vector_<std::uint16_t> ports;
    for (int i = 0; i < 150000; ++i) {
        std::string list;
        for (std::size_t left = length(random); left > 0; --left)
            list += alphabet[pick(random)];
        parsePortList(list, ports);
        ASSERT_EQ(std::vector<std::uint16_t>(ports.begin(), ports.end()), modelPorts(list))
            << testing::PrintToString(list);
    }
}

}  // namespace
