#include "hosts/hosts_file.h"

#include <gtest/gtest.h>
#include <random>

namespace {

using rdbopen::withHostLines;
using Addresses = std::vector<std::string>;

TEST(HostsFile, AnEmptyFileGetsOneLineForEachAddress) {
    EXPECT_EQ(withHostLines("", "host1", Addresses{"2001:db8::1", "192.0.2.1"}),
              "2001:db8::1 host1 # addrpubd host1\n192.0.2.1 host1 # addrpubd host1\n");
}

TEST(HostsFile, NewLinesFollowTheLastCompleteLine) {
    EXPECT_EQ(withHostLines("127.0.0.1 localhost\n", "h", Addresses{"::1"}),
              "127.0.0.1 localhost\n::1 h # addrpubd h\n");
}

TEST(HostsFile, NewLinesReplaceTheOldLinesAtTheFirstOfThem) {
    EXPECT_EQ(withHostLines("a\n::1 h # addrpubd h\nb\n::2 h # addrpubd h\nc\n", "h", Addresses{"::3", "::4"}),
              "a\n::3 h # addrpubd h\n::4 h # addrpubd h\nb\nc\n");
}

TEST(HostsFile, WithoutAddressesTheLinesAreRemoved) {
    EXPECT_EQ(withHostLines("a\n::1 h # addrpubd h\nb\n", "h", Addresses{}), "a\nb\n");
}

TEST(HostsFile, ALastLineWithoutALineFeedStaysLastAndUnchanged) {
    EXPECT_EQ(withHostLines("a\nb", "h", Addresses{"::1"}), "a\n::1 h # addrpubd h\nb");
}

TEST(HostsFile, LinesOfAnotherHostAreUnchanged) {
    const std::string file = "::1 host10 # addrpubd host10\n::2 myhost1 # addrpubd myhost1\n";
    EXPECT_EQ(withHostLines(file, "host1", Addresses{}), file);
}

TEST(HostsFile, LinesThatOnlyResembleAnOwnLineAreUnchanged) {
    for (const std::string line :
         {"::1 h", "::1 h # addrpubd h ", "::1  h # addrpubd h", "::1\th # addrpubd h", "::1 h alias # addrpubd h",
          "# ::1 h # addrpubd h", "::1 h # addrpubd h\r", "::1 h #addrpubd h", "::1 H # addrpubd h",
          "nonsense h # addrpubd h", " h # addrpubd h", "::1 h # addrpubd other"}) {
        const std::string file = line + "\n";
        EXPECT_EQ(withHostLines(file, "h", Addresses{}), file);
    }
}

TEST(HostsFile, ALineWithoutItsLineFeedIsNotOwn) {
    const std::string file = "::1 h # addrpubd h";
    EXPECT_EQ(withHostLines(file, "h", Addresses{}), file);
}

TEST(HostsFile, ZeroBytesAndBlankLinesAreKept) {
    const std::string file("\n\0\n\n \r\n", 6);
    EXPECT_EQ(withHostLines(file, "h", Addresses{}), file);
}

TEST(HostsFile, ALineWithAZeroByteInItsAddressIsNotOwn) {
    using namespace std::string_literals;
    for (const std::string& address : {"::1\0"s, "::1\0x"s, "192.0.2.1\0 # kept"s, "\0"s, "\0::1"s}) {
        const std::string file = address + " h # addrpubd h\n";
        EXPECT_EQ(withHostLines(file, "h", Addresses{"::2"}), file + "::2 h # addrpubd h\n");
    }
}

TEST(HostsFile, TheSameAddressesAgainChangeNothing) {
    const std::string once = withHostLines("a\nb", "h", Addresses{"::1", "::2"});
    EXPECT_EQ(withHostLines(once, "h", Addresses{"::1", "::2"}), once);
}

TEST(HostsFile, OtherLinesAreKeptInAnyOrderOfUpdates) {
    std::minstd_rand random(20250411);
    for (int round = 0; round < 2000; ++round) {
        std::string foreign;
        for (auto length = random() % 60; length > 0; --length)
            foreign.push_back("a:1 #\n\n\0\r\xff"[random() % 10]);
        std::string file = foreign;
        for (int update = 0; update < 6; ++update) {
            Addresses addresses(random() % 3, "2001:db8::" + std::to_string(random() % 10));
            file = withHostLines(file, random() % 2 == 0 ? "h" : "other", addresses);
        }
        file = withHostLines(file, "h", Addresses{});
        EXPECT_EQ(withHostLines(file, "other", Addresses{}), foreign);
    }
}

TEST(HostsFile, ListsOwnLinesAndOtherLinesThatNameTheHost) {
    const rdbopen::HostLines lines = rdbopen::hostLines("::1 h # addrpubd h\n"
                                                        "::2  other\tH # comment\n"
                                                        "::3 hh # h\n"
                                                        "h other\n"
                                                        "# ::4 h\n"
                                                        "\n"
                                                        "::5 h # addrpubd h \n"
                                                        "::6 h",
                                                        "h");
    EXPECT_EQ(lines.own, (Addresses{"::1 h # addrpubd h"}));
    EXPECT_EQ(lines.others, (Addresses{"::2  other\tH # comment", "::5 h # addrpubd h ", "::6 h"}));
}

}  // namespace
