#include "olk_url.h"

#include "fake_resolver.h"
#include "url_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

using url = olk::net::url<olk::string>;

std::string text_of(const olk::string& s) {
    return s.empty() ? std::string() : std::string(s.data(), s.size());
}

url_row row_of(const std::string& input, const url& parsed, bool good) {
    return {input,
            std::to_string(parsed.port),
            text_of(parsed.scheme),
            text_of(parsed.host),
            text_of(parsed.ipv4),
            text_of(parsed.ipv6),
            text_of(parsed.path),
            text_of(parsed.args),
            good ? "parsed" : "failed"};
}

class Url : public testing::Test {
protected:
    Url() { add_example_names(resolver); }

    bool parse(const std::string& text) { return parsed.parse(text.data(), text.size()); }
    url_row row(const std::string& text) {
        const bool good = parse(text);
        return row_of(text, parsed, good);
    }

    FakeResolver resolver;
    url parsed;
};

TEST_F(Url, ANewObjectIsEmptyAndHasPort0) {
    EXPECT_EQ(row_of("", parsed, true), (url_row{"", "0", "", "", "", "", "", "", "parsed"}));
}

TEST_F(Url, EveryRowOfTheTableYieldsItsFields) {
    const std::vector<url_row> rows = read_url_table();
    ASSERT_GE(rows.size(), 120u);
    for (const url_row& expected : rows) {
        SCOPED_TRACE(testing::PrintToString(expected[0]));
        EXPECT_EQ(row(expected[0]), expected);
    }
}

TEST_F(Url, AReusedObjectYieldsTheSameFieldsAsANewOne) {
    const std::vector<url_row> rows = read_url_table();
    for (const url_row& before : rows) {
        for (std::size_t i = 0; i < rows.size(); i += 11) {
            parse(before[0]);
            EXPECT_EQ(row(rows[i][0]), rows[i]) << "behind " << before[0];
        }
    }
}

TEST_F(Url, AReusedObjectKeepsItsMemory) {
    ASSERT_TRUE(parse("udp://both.example:5140/netsvc?level=dbg"));
    const char* const memory[] = {parsed.scheme.data(), parsed.ipv4.data(), parsed.ipv6.data(),
                                  parsed.path.data(),   parsed.args.data(), parsed.host.data()};
    EXPECT_FALSE(parse(""));
    const char* const kept[] = {parsed.scheme.data(), parsed.ipv4.data(), parsed.ipv6.data(),
                                parsed.path.data(),   parsed.args.data(), parsed.host.data()};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(kept[i], memory[i]) << i;
}

//  The text ends at a page that cannot be read, so reading one more byte crashes.
TEST_F(Url, ReadsNothingAfterTheText) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const two = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(two, MAP_FAILED);
    char* const end = static_cast<char*>(two) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    for (const url_row& expected : read_url_table()) {
        const std::string& text = expected[0];
        text.copy(end - text.size(), text.size());
        const bool good = parsed.parse(end - text.size(), text.size());
        EXPECT_EQ(row_of(text, parsed, good), expected);
    }
    munmap(two, 2 * page);
}

TEST_F(Url, OnlyTheGivenLengthIsParsed) {
    const std::string text = "udp://192.0.2.10:5140/netsvc?level=dbg";
    EXPECT_TRUE(parsed.parse(text.data(), std::string("udp://192.0.2.10:51").size()));
    EXPECT_EQ(row_of(text, parsed, true),
              (url_row{text, "51", "udp", "192.0.2.10:51", "192.0.2.10", "", "", "", "parsed"}));
}

TEST_F(Url, ANullTextOfLength0Fails) {
    EXPECT_FALSE(parsed.parse(nullptr, 0));
}

TEST_F(Url, TheResolverIsCalledOnceForTheNameWithoutPortAndBrackets) {
    parse("udp://both.example:5140/netsvc");
    parse("udp://[2001:db8::5]:5140/netsvc");
    parse("udp://[2001:db8::5]:/netsvc");
    EXPECT_EQ(resolver.asked, (std::vector<std::string>{"both.example", "2001:db8::5", "2001:db8::5"}));
}

TEST_F(Url, AnEmptyHostIsNotResolved) {
    for (const char* text : {"", "udp:///x", "udp://:1/x", "udp://[]/x", "::1", "?a"})
        EXPECT_FALSE(parse(text)) << text;
    EXPECT_TRUE(resolver.asked.empty());
}

TEST_F(Url, AHostThatNoLongerResolvesFailsAndLeavesNoOldAddress) {
    resolver.add("moving.example", {"192.0.2.1", "2001:db8::1"});
    ASSERT_TRUE(parse("udp://moving.example/x"));
    resolver.add("moving.example", {});
    EXPECT_EQ(row("udp://moving.example/x"),
              (url_row{"udp://moving.example/x", "0", "udp", "moving.example", "", "", "", "", "failed"}));
}

TEST_F(Url, LongPartsAreNotShortened) {
    const std::string path(100'000, 'p');
    const std::string args(100'000, 'a');
    ASSERT_TRUE(parse("udp://four.example/" + path + "?" + args));
    EXPECT_EQ(text_of(parsed.path), path);
    EXPECT_EQ(text_of(parsed.args), args);
}

//  An allocator for strings that provides only the number of blocks in `blocks`.
struct scarce_alloctor {
    static inline int blocks = 0;
    static void* malloc_(size_t size, size_t* outsize) {
        return blocks-- > 0 ? olk::get_olk_allocator()->malloc_(size, outsize) : nullptr;
    }
    static void free_(void* p) { olk::get_olk_allocator()->free_(p); }
    static size_t usable_size(const void* p) { return olk::allocator::usable_size(p); }
};

TEST_F(Url, TheWholeTextIsParsedOnlyWithEnoughMemory) {
    using scarce = olk::string_<scarce_alloctor, unsigned int, char, void>;
    const std::string text = "udp://192.0.2.10:5140/" + std::string(100, 'p') + "?" + std::string(100, 'a');
    bool good = false;
    int needed = 0;
    for (; needed < 100 && !good; ++needed) {
        scarce_alloctor::blocks = needed;
        olk::net::url<scarce> short_of_memory;
        good = short_of_memory.parse(text.data(), text.size()) && short_of_memory.args.size() == 100;
    }
    EXPECT_GT(needed, 5);
    EXPECT_LT(needed, 100);
}

TEST_F(Url, WithMemoryForTheHostOnlyThePathIsShortened) {
    using scarce = olk::string_<scarce_alloctor, unsigned int, char, void>;
    const std::string text = "192.0.2.10/" + std::string(100, 'p');
    for (int blocks = 0; blocks < 100; ++blocks) {
        scarce_alloctor::blocks = blocks;
        olk::net::url<scarce> short_of_memory;
        if (short_of_memory.parse(text.data(), text.size()) && short_of_memory.path.size() < 100) {
            EXPECT_STREQ(short_of_memory.host.c_str(), "192.0.2.10");
            return;
        }
    }
    ADD_FAILURE() << "no shortage of memory shortened the path";
}

}  // namespace
