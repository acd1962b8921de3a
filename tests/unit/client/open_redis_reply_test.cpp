//  The parser of a Redis server's answers, and the messages for its errors.
#include "redis/refusal.h"
#include "redis/reply.h"

#include <gtest/gtest.h>

namespace {

using namespace rdbopen;
using namespace std::string_literals;
using Kind = RedisReply::Kind;

enum class Outcome { complete, incomplete, broken };

class RedisParser : public testing::Test {
protected:
    RedisParser() { EXPECT_TRUE(parser.reset().ok()); }
    Outcome next() {
        const rdbopen::Result<std::optional<RedisReply>> taken = parser.next();
        reason = taken.status().reason;
        if (!taken.ok())
            return Outcome::broken;
        reply = taken->value_or(RedisReply());
        return *taken ? Outcome::complete : Outcome::incomplete;
    }
    Outcome parse(const std::string& bytes) {
        parser.feed(bytes);
        return next();
    }
    RedisReplyParser parser;
    RedisReply reply;
    std::string reason;
};

TEST_F(RedisParser, ParsesEachKindOfAnswer) {
    ASSERT_EQ(parse("*6\r\n+OK\r\n-ERR no\r\n:-7\r\n$3\r\na\0b\r\n"
                    "$-1\r\n*0\r\n"s),
              Outcome::complete);
    ASSERT_EQ(reply.elements.size(), 6U);
    EXPECT_TRUE(reply.elements[0].isStatus("OK"));
    EXPECT_TRUE(reply.elements[1].is(Kind::error));
    EXPECT_EQ(reply.elements[1].text, "ERR no");
    EXPECT_EQ(reply.elements[2].integer, -7);
    EXPECT_EQ(reply.elements[3].text, "a\0b"s);
    EXPECT_TRUE(reply.elements[4].is(Kind::nil));
    EXPECT_TRUE(reply.elements[5].is(Kind::array));
}

TEST_F(RedisParser, ParsesAnAnswerThatArrivesByteByByte) {
    const std::string bytes = "*2\r\n$3\r\nabc\r\n*1\r\n:5\r\n";
    for (std::size_t i = 0; i + 1 < bytes.size(); ++i)
        ASSERT_EQ(parse(bytes.substr(i, 1)), Outcome::incomplete) << i;
    ASSERT_EQ(parse(bytes.substr(bytes.size() - 1)), Outcome::complete);
    EXPECT_EQ(reply.elements[1].elements[0].integer, 5);
    EXPECT_TRUE(parser.drained());
}

TEST_F(RedisParser, StopsAfterOneAnswer) {
    ASSERT_EQ(parse("+one\r\n+two\r\n"), Outcome::complete);
    EXPECT_FALSE(parser.drained());
    ASSERT_EQ(next(), Outcome::complete);
    EXPECT_TRUE(reply.isStatus("two"));
    EXPECT_TRUE(parser.drained());
}

TEST_F(RedisParser, FailsAtAnInvalidAnswer) {
    for (const char* bytes : {"hello\r\n", ":12x\r\n", "*-2\r\n", "$-2\r\n", "$x\r\n", "*99999999999999999999\r\n",
                              "*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n"}) {
        ASSERT_TRUE(parser.reset().ok());
        EXPECT_EQ(parse(bytes), Outcome::broken) << bytes;
        EXPECT_EQ(parse("+OK\r\n"), Outcome::broken) << bytes;
        EXPECT_NE(reason.find("does not speak"), std::string::npos) << bytes;
    }
}

TEST_F(RedisParser, ParsesTheLongestAnswerAndFailsAtOneByteMore) {
    const std::string head = "$262131\r\n";
    const std::string longest = head + std::string(262131, 'x') + "\r\n";
    ASSERT_EQ(longest.size(), maxRedisReplySize - 2);
    EXPECT_EQ(parse(longest), Outcome::complete);
    EXPECT_EQ(parse("$262133\r\n" + std::string(262133, 'x') + "\r\n"), Outcome::complete);
    EXPECT_EQ(parse("$262134\r\n" + std::string(262134, 'x') + "\r\n"), Outcome::broken);
    EXPECT_EQ(reason, "an answer of the server is too long");
}

TEST_F(RedisParser, ParsesTheLargestArraysAndFailsAtOneElementMore) {
    std::string bytes = "*2\r\n*8190\r\n";
    for (int i = 0; i < 8190; ++i)
        bytes += ":1\r\n";
    EXPECT_EQ(parse(bytes + ":1\r\n"), Outcome::complete);
    EXPECT_EQ(parse(bytes + "*1\r\n"), Outcome::broken);
}

TEST_F(RedisParser, AnArrayThatIsAnnouncedTooLargeIsRefused) {
    EXPECT_EQ(parse("*2147483647\r\n"), Outcome::broken);
}

TEST(RedisRefusal, HasAMessageForACommonError) {
    EXPECT_EQ(redisRefusal("HSET", "OOM command not allowed when used memory > 'maxmemory'.", 0),
              "refused: the server's memory limit is reached (OOM)");
}

TEST(RedisRefusal, QuotesOtherErrorsPrintableAndShortened) {
    EXPECT_EQ(redisRefusal("HSET", "ERR odd\n\x1b[31m\xff", 500), "HSET refused: ERR odd??[31m?");
    EXPECT_EQ(redisRefusal("HSET", std::string(500, 'x'), 500), "HSET refused: " + std::string(120, 'x'));
}

TEST(RedisRefusal, QuotesAtMostTheAllowedLength) {
    EXPECT_EQ(redisRefusal("HSET", "ERR in front of a secret", 7), "HSET refused: ERR in ");
    EXPECT_EQ(redisRefusal("AUTH", "ERR with u and secret", 0), "AUTH refused: the answer is none of the usual ones");
}

TEST(RedisRefusal, AnUnknownCommandMayBeRenamedOrSwitchedOff) {
    EXPECT_EQ(redisRefusal("AUTH", "ERR unknown command 'AUTH', with args beginning with: 'u' 'secret'", 0),
              "AUTH refused: the command is renamed or switched off at this server, or it is a Sentinel (ERR unknown "
              "command)");
}

TEST(RedisRefusal, AQuoteEndsBeforeTheFirstPartOfASecret) {
    const struct {
        const char* answer;
        std::vector<std::string> secrets;
        const char* quote;
    } rows[] = {
        {"ERR odd", {"user1", "secret"}, "ERR odd"},
        {"ERR no AUTH user1 secret", {"user1", "secret"}, "ERR no AUTH "},
        {"ERR no AUTH secret", {"user1", "secret"}, "ERR no AUTH "},
        {"ERR cut: 'secr", {"user1", "secret"}, "ERR cut: '"},
        {"ERR end: ret, cret", {"user1", "secret"}, "ERR end: ret, "},
        {"ERR SeCrEt", {"user1", "sEcReT"}, "ERR "},
        {"ERR pw!", {"user1", "pw"}, "ERR "},
        {"ERR any", {"", ""}, "ERR any"},
        {"secret", {"user1", "secret"}, ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(std::string_view(row.answer).substr(0, redisQuotable(row.answer, row.secrets)), row.quote);
}

TEST(RedisRefusal, NoPartOfASecretIsQuotedWhereverItIsInTheAnswer) {
    const std::string secret = "0123456789";
    for (std::size_t at = 0; at < 300; ++at)
        for (const char* prefix : {"", "ERR Error running script (call to f_0): @user_script:1: @user_script: 1: -"}) {
            const std::string answer = prefix + std::string(at, '.') + secret;
            const std::string reason = redisRefusal("X", answer, redisQuotable(answer, {&secret, 1}));
            EXPECT_EQ(reason.find("0123"), std::string::npos) << at;
        }
}

}  // namespace
