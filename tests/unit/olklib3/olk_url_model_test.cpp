//  Compares the url parser, the parser of the first query parameter and the level parser with independent
//  implementations. The input texts are generated from relevant pieces with a fixed seed.
#include "fake_resolver.h"
#include "level_model.h"
#include "olk_log.h"
#include "olk_string.h"
#include "olk_url.h"
#include "olk_words.h"
#include "url_model.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

constexpr int inputs = 150'000;

using Pieces = std::vector<std::string>;

class Maker {
public:
    explicit Maker(unsigned seed) : random_(seed) {}

    //  Returns a text of at most `most` random pieces.
    std::string text(const Pieces& pieces, std::size_t most) {
        std::string made;
        for (std::size_t left = below(most + 1); left > 0; --left)
            made += pieces[below(pieces.size())];
        return made;
    }
    //  Returns `made`, sometimes with one changed byte.
    std::string spoiled(std::string made) {
        if (!made.empty() && below(4) == 0)
            made[below(made.size())] = static_cast<char>(below(256));
        return made;
    }
    std::size_t below(std::size_t end) { return random_() % end; }

private:
    std::mt19937 random_;
};

const Pieces url_pieces = {"udp",
                           "://",
                           ":",
                           "/",
                           "//",
                           "?",
                           "[",
                           "]",
                           "\n",
                           " ",
                           "@",
                           "5140",
                           "70000",
                           "-1",
                           "+9",
                           "x",
                           "",
                           "=",
                           "level=dbg",
                           "192.0.2.10",
                           "2001:db8::5",
                           "::1",
                           "[2001:db8::5]",
                           "both.example",
                           "four.example",
                           "six.example",
                           "local.example",
                           "no.such.example",
                           std::string("\0", 1),
                           "udp://192.0.2.10",
                           "udp://[2001:db8::5]",
                           "udp://both.example:"};

struct Fields {
    bool good;
    unsigned port;
    std::string scheme, host, ipv4, ipv6, path, args;
    bool operator==(const Fields&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Fields& f) {
    return out << f.good << " " << f.port
               << testing::PrintToString(Pieces{f.scheme, f.host, f.ipv4, f.ipv6, f.path, f.args});
}

std::string text_of(const olk::string& s) {
    return s.empty() ? std::string() : std::string(s.data(), s.size());
}

class UrlModelTest : public testing::Test {
protected:
    UrlModelTest() {
        resolver.answers_literals = true;
        add_example_names(resolver);
    }

    //  Returns the answer of the simulated resolver: the first address of each family.
    std::pair<std::string, std::string> addresses(const std::string& name) {
        olk::string ipv4;
        olk::string ipv6;
        olk::net::get_ips_by_domain(name.c_str(), ipv4, ipv6);
        return {text_of(ipv4), text_of(ipv6)};
    }

    FakeResolver resolver;
};

TEST_F(UrlModelTest, EveryFieldAgreesOnGeneratedUrls) {
    Maker maker(4711);
    olk::net::url<olk::string> parsed;
    int good = 0;
    for (int i = 0; i < inputs; ++i) {
        const std::string text = maker.spoiled(maker.text(url_pieces, 10));
        const UrlModel model(text, [this](const std::string& name) { return addresses(name); });
        const bool result = parsed.parse(text.data(), text.size());
        const Fields fields = {result,
                               parsed.port,
                               text_of(parsed.scheme),
                               text_of(parsed.host),
                               text_of(parsed.ipv4),
                               text_of(parsed.ipv6),
                               text_of(parsed.path),
                               text_of(parsed.args)};
        const Fields expected = {model.good, model.port, model.scheme, model.host,
                                 model.ipv4, model.ipv6, model.path,   model.args};
        ASSERT_EQ(fields, expected) << testing::PrintToString(text);
        good += result ? 1 : 0;
    }
    EXPECT_GT(good, inputs / 20);
}

const Pieces level_pieces = {
    "err", "wrn", "inf", "msg", "mor", "dbg", "all", "E",  "R", "L", "G",          "0",          "1",
    "9",   "40",  "-",   "+",   " ",   "\t",  "\n",  "\v", "x", "",  "4294967296", "2147483648", "99999999999999999999",
    "DBG", "Msg", "aLL", "."};

TEST(LevelModelTest, TheLevelAgreesOnGeneratedTexts) {
    Maker maker(42);
    for (int i = 0; i < inputs; ++i) {
        const std::string text = maker.text(level_pieces, 4);
        ASSERT_EQ(olk::level_from_text(text.c_str()), modelLevel(text)) << testing::PrintToString(text);
    }
}

const Pieces query_pieces = {"level", "LEVEL", "level=", "=",  "&",   "dbg", "all", "40",         "x",
                             " ",     "\t",    "\r",     "\n", "abc", "",    "-",   "abcdefghij", std::string("\0", 1)};

TEST(PairModelTest, TheFirstPairAgreesOnGeneratedQueries) {
    Maker maker(7);
    int found = 0;
    for (int i = 0; i < inputs; ++i) {
        const std::string text = maker.spoiled(maker.text(query_pieces, 8));
        const PairModel model(text);
        char key[olk::word_size];
        char value[olk::word_size];
        std::size_t position = 0;
        const bool pair = olk::read_word(text.data(), text.size(), position, "=", key) == olk::word_end::separator &&
                          olk::read_word(text.data(), text.size(), position, "&", value) != olk::word_end::none;
        ASSERT_EQ(pair, model.found) << testing::PrintToString(text);
        if (!pair)
            continue;
        ++found;
        ASSERT_EQ(Pieces({key, value}), Pieces({model.key, model.value})) << testing::PrintToString(text);
    }
    EXPECT_GT(found, inputs / 20);
}

}  // namespace
