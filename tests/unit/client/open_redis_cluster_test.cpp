//  redis+cluster:// with fake nodes: masters, redirections, and clusters that are being changed. The clock advances
//  only by the pauses of the back end and by the waits of a DrippingWaiter.
#include "open_fake_redis.h"
#include "open_support.h"
#include "redis/cluster_layout.h"
#include "redis/scripts.h"
#include "redis/slots.h"

#include <atomic>
#include <gtest/gtest.h>
#include <sys/socket.h>

namespace {

std::atomic<std::int64_t> clusterTime{0};  // ms

}  // namespace

extern "C" {

int __wrap_clock_gettime(clockid_t, timespec* now);
int __wrap_clock_gettime(clockid_t, timespec* now) {
    const std::int64_t time = clusterTime;
    *now = {1000000 + time / 1000, time % 1000 * 1000000};
    return 0;
}
}

namespace {

using namespace opentest;
using namespace rdbopen;

//  A pause advances the clock and ends at once. From pause number `closedAfter` on, the handle counts as closed.
class PauseWaiter : public Waiter {
public:
    Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override {
        if (descriptor >= 0)
            return plainWaiter.wait(descriptor, events, until);
        pauses.push_back(until - monotonicNow());
        clusterTime += pauses.back().count();
        onPause();
        return pauses.size() >= closedAfter ? Result::closed : Result::timedOut;
    }
    mutable std::vector<std::chrono::milliseconds> pauses;
    std::size_t closedAfter = SIZE_MAX;
    std::function<void()> onPause = [] {};
};

//  After the node has received a command with the given word, every wait advances the clock by one second, and the node
//  sends one byte of its answer.
class DrippingWaiter : public Waiter {
public:
    DrippingWaiter(FakeRedis& node, std::string word) : node_(node), word_(std::move(word)) {}
    Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override {
        if (node_.received(word_).empty())
            return plainWaiter.wait(descriptor, events, until);
        node_.say("1");
        clusterTime += 1000;
        return monotonicNow() >= until ? Result::timedOut : Result::ready;
    }

private:
    FakeRedis& node_;
    const std::string word_;
};

struct Range {
    int first;
    int last;
    std::string host;
    int port;
};

std::string bulk(const std::string& text) {
    return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}

//  Returns the answer to CLUSTER SLOTS, as Redis 7 sends it.
std::string slotsAnswer(const std::vector<Range>& ranges) {
    std::string answer = "*" + std::to_string(ranges.size()) + "\r\n";
    for (const Range& range : ranges)
        answer += "*3\r\n:" + std::to_string(range.first) + "\r\n:" + std::to_string(range.last) + "\r\n*4\r\n" +
                  bulk(range.host) + ":" + std::to_string(range.port) + "\r\n" + bulk("id") + "*0\r\n";
    return answer;
}

std::string answerOf(const std::string& word, const FakeRedis& target, const std::string& host = "127.0.0.1") {
    return "-" + word + " 1 " + host + ":" + std::to_string(target.port()) + "\r\n";
}

class RedisCluster : public testing::Test {
protected:
    RedisCluster() {
        clusterTime = 0;
        masterIs(one);
        use(one.url());
    }
    void masterIs(const FakeRedis& master) {
        for (FakeRedis* node : {&one, &two})
            node->usually("CLUSTER", slotsAnswer({{0, 16383, "127.0.0.1", master.port()}}));
    }
    void use(const std::string& redisUrl, const Credentials& credentials = {"u", "secret"}) {
        backend = backendFor("redis+cluster" + redisUrl.substr(redisUrl.find(':')), credentials);
        ASSERT_NE(backend, nullptr);
    }
    void useBoth() { use(one.url(",127.0.0.1:" + std::to_string(two.port()))); }
    void opened() {
        const Status outcome = backend->open(waiter);
        ASSERT_EQ(outcome.reason, "");
    }
    Status put(const std::string& name = "host1") {
        const RdbSnapshot record = recordOf(name, "v");
        return backend->tags()->put({&record, 1});
    }
    static std::size_t puts(FakeRedis& node) { return node.received("EVALSHA").size(); }

    FakeRedis one;
    FakeRedis two;
    PauseWaiter waiter;
    std::unique_ptr<Backend> backend;
};

using Words = std::vector<std::string>;

Words wordsOf(FakeRedis& node) {
    Words words;
    for (const FakeRedis::Command& command : node.received())
        words.push_back(command.front());
    return words;
}

TEST(RedisClusterUrl, TakesNodesAndTheOptionsOfTheKeys) {
    for (const char* url : {"redis+cluster://a", "redis+cluster://a,b:7000,[::1]:7001", "redis+cluster://a/",
                            "redis+cluster://a/0?expire=660&history=0"}) {
        const BackendResult made = makeBackend(url, {"u", "p"});
        EXPECT_EQ(made.status().reason, "") << url;
    }
    EXPECT_EQ(backendFor("redis+cluster://a,[::1]:7000/0?expire=900")->label(), "redis+cluster://a:6379,[::1]:7000");
}

TEST(RedisClusterUrl, RefusesInvalidUrls) {
    for (const char* url : {"redis+cluster://", "redis+cluster://a,", "redis+cluster://a/x", "redis+cluster://a?db=0",
                            "redis+cluster://a?ca=/x", "redis+cluster:///s", "redis+cluster://u@a"})
        EXPECT_EQ(makeBackend(url, {"u", "p"}).status().code, errorBadUrl) << url;
    EXPECT_EQ(makeBackend("redis+cluster://a/1", {"u", "p"}).status().reason,
              "malformed url: a cluster has only database 0");
}

TEST(RedisClusterUrl, WithASingleNodeGetsAWarning) {
    const auto adviceOn = [](const std::string& text) {
        const Result<Url> url = parseUrl(text);
        std::vector<Advice> advice;
        (*moduleForUrl(*url))->advise({*url, {"u", "p"}, "rdburl", "rdbpswd", "host1", {}}, advice);
        return advice;
    };
    ASSERT_EQ(adviceOn("redis+cluster://a?expire=900").size(), 1U);
    EXPECT_EQ(adviceOn("redis+cluster://a")[0].text,
              "rdburl: it names one node of the cluster: while that node is down, the service cannot connect after a "
              "start; name several, separated by commas");
    for (const char* url : {"redis+cluster://a,b", "redis+cluster://", "redis://a"})
        EXPECT_TRUE(adviceOn(url).empty()) << url;
}

TEST_F(RedisCluster, IsAskedForItsSlotsWhenItIsOpened) {
    opened();
    EXPECT_EQ(wordsOf(one), (Words{"AUTH", "CLIENT", "PING", "CLUSTER"}));
    EXPECT_EQ(one.received("CLUSTER").front(), (FakeRedis::Command{"CLUSTER", "SLOTS"}));
    EXPECT_GE(backend->watchedDescriptor(), 0);
}

TEST_F(RedisCluster, OfASingleServerIsReported) {
    one.answer("CLUSTER", "-ERR This instance has cluster support disabled\r\n");
    EXPECT_EQ(backend->open(waiter).reason,
              "127.0.0.1:" + std::to_string(one.port()) +
                  ": refused: the server is not part of a cluster: the scheme for it is without +cluster (ERR This "
                  "instance has cluster support disabled)");
}

TEST_F(RedisCluster, IsOpenedThroughASecondNodeIfTheFirstCannotBeReached) {
    use("redis://127.0.0.1:1,127.0.0.1:" + std::to_string(two.port()));
    opened();
    EXPECT_EQ(two.received("CLUSTER").size(), 1U);
}

TEST_F(RedisCluster, ThatCannotBeOpenedNamesTheFailureOfEachNode) {
    use("redis://127.0.0.1:1,127.0.0.1:" + std::to_string(two.port()));
    two.answer("AUTH", "-WRONGPASS no\r\n");
    const Status outcome = backend->open(waiter);
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, "127.0.0.1:1: cannot be reached: " + errorText(ECONNREFUSED) +
                                  "; 127.0.0.1:" + std::to_string(two.port()) +
                                  ": AUTH refused: user or password is wrong, or the user is switched off (WRONGPASS)");
}

TEST_F(RedisCluster, ServesANameAtTheMasterOfItsSlotOnOneConnection) {
    masterIs(two);
    opened();
    ASSERT_EQ(put().reason, "");
    ASSERT_EQ(put().reason, "");
    EXPECT_EQ(puts(one), 0U);
    EXPECT_EQ(puts(two), 2U);
    EXPECT_TRUE(eventually([this] { return one.openConnections() == 0; }));
    EXPECT_EQ(two.connections(), 1);
    EXPECT_EQ(backend->probe().code, 0);
    EXPECT_EQ(two.received("PING").size(), 2U);
}

TEST_F(RedisCluster, PublishesToTheNodesOfTheSlot) {
    opened();
    ASSERT_EQ(put().code, 0);
    EXPECT_EQ(one.received("EVALSHA").front()[1], redisClusterPutScript.hash);
    EXPECT_NE(redisClusterPutScript.source.find("SPUBLISH"), std::string_view::npos);
    EXPECT_EQ(redisPutScript.source.find("SPUBLISH"), std::string_view::npos);
}

TEST_F(RedisCluster, NamesOfDifferentSlotsAreStoredWithACommandForEach) {
    const int middle = redisSlot("a") < redisSlot("b") ? redisSlot("a") : redisSlot("b");
    for (FakeRedis* node : {&one, &two})
        node->usually("CLUSTER", slotsAnswer({{0, middle, "127.0.0.1", one.port()},
                                              {middle + 1, 16383, "127.0.0.1", two.port()}}));
    for (FakeRedis* node : {&one, &two})
        node->usually("HMGET", "*3\r\n$1\r\n2\r\n$1\r\n6\r\n$1\r\n1\r\n");
    opened();
    const RdbSnapshot records[]{recordOf("a", "1"), recordOf("b", "2"), recordOf("a}x", "3")};
    ASSERT_EQ(backend->tags()->put(records).reason, "");
    FakeRedis& ofA = redisSlot("a") == middle ? one : two;
    FakeRedis& ofB = redisSlot("a") == middle ? two : one;
    ASSERT_EQ(puts(ofA), 1U);
    ASSERT_EQ(puts(ofB), 1U);
    EXPECT_EQ(ofA.received("EVALSHA").front()[2], "6");
    EXPECT_EQ(ofA.received("EVALSHA").front()[6], "rdb:tag:{a}x}");
    EXPECT_EQ(ofB.received("EVALSHA").front()[3], "rdb:tag:{b}");
    EXPECT_TRUE(one.openConnections() == 1 && two.openConnections() == 1);
}

TEST_F(RedisCluster, NamesOfDifferentSlotsAreNotStoredIfATagIsMissing) {
    opened();
    const RdbSnapshot records[]{recordOf("a", "1"), recordOf("b", "2")};
    one.answer("HMGET", "*3\r\n$1\r\n2\r\n$1\r\n6\r\n$1\r\n1\r\n");
    EXPECT_EQ(backend->tags()->put(records).code, errorNoSuchTag);
    one.answer("HMGET", "*3\r\n$1\r\n1\r\n$1\r\n6\r\n$1\r\n1\r\n");
    EXPECT_EQ(backend->tags()->put(records).code, errorTagNotUsable);
    EXPECT_EQ(puts(one), 0U);
}

TEST_F(RedisCluster, AMovedSlotIsFollowedAndRemembered) {
    opened();
    for (const char* host : {"127.0.0.1", ""}) {  // an empty host means the node that was asked
        const std::size_t before = puts(two);
        one.answer("EVALSHA", answerOf("MOVED", two, host));
        ASSERT_EQ(put().reason, "") << host;
        ASSERT_EQ(put().reason, "") << host;
        EXPECT_EQ(puts(two) - before, 2U) << host;
        two.answer("EVALSHA", answerOf("MOVED", one));
        ASSERT_EQ(put().reason, "") << host;
    }
    EXPECT_EQ(two.received("ASKING").size(), 0U);
    EXPECT_TRUE(eventually([this] { return two.openConnections() == 0; }));
}

TEST_F(RedisCluster, ASlotThatIsBeingMovedIsAskedForOnceAtItsTarget) {
    opened();
    one.answer("EVALSHA", answerOf("ASK", two));
    ASSERT_EQ(put().reason, "");
    const Words words = wordsOf(two);
    EXPECT_EQ(Words(words.end() - 2, words.end()), (Words{"ASKING", "EVALSHA"}));
    ASSERT_EQ(put().reason, "");
    EXPECT_EQ(puts(one), 2U);
    EXPECT_EQ(puts(two), 1U);
}

TEST_F(RedisCluster, AScriptThatTheTargetDoesNotHaveIsSentThere) {
    opened();
    one.usually("EVALSHA", answerOf("ASK", two));
    one.usually("EVAL", answerOf("ASK", two));
    two.answer("EVALSHA", "-NOSCRIPT No matching script. Please use EVAL.\r\n");
    ASSERT_EQ(put().reason, "");
    EXPECT_EQ(two.received("ASKING").size(), 2U);
    EXPECT_EQ(two.received("EVAL").size(), 1U);
}

TEST_F(RedisCluster, RedirectionsEndAfterFive) {
    for (const char* word : {"MOVED", "ASK"}) {
        opened();
        one.usually("EVALSHA", answerOf(word, two));
        two.usually("EVALSHA", answerOf(word, one));
        const std::size_t before = puts(one) + puts(two);
        const Status outcome = put();
        EXPECT_EQ(outcome.code, errorBackendFailed);
        EXPECT_EQ(outcome.reason, "the nodes of the cluster redirect a request more than 5 times");
        EXPECT_EQ(puts(one) + puts(two) - before, 6U);
        backend->close();
    }
}

TEST_F(RedisCluster, ARedirectionWithoutAUsableAddressFails) {
    const std::string huge(100000, 'h');
    for (const std::string& rest :
         {std::string("1"), std::string("1 h"), std::string("1 h:"), std::string("1 h:0"), std::string("1 h:65536"),
          std::string("1 h:-1"), std::string("1 h:1x"), std::string("1 ?:1"), std::string("1 a,b:1"),
          std::string("1 u@h:1"), std::string("1 h/x:1"), std::string("1 [::1:1"), std::string("1 h:1 "),
          std::string(":"), std::string(""), std::string("1 h\t:1"), "1 " + huge + ":1",
          "1 h:" + std::string(999, '9')})
        for (const char* word : {"MOVED ", "ASK "}) {
            opened();
            one.answer("EVALSHA", "-" + (word + rest) + "\r\n");
            const Status outcome = put();
            EXPECT_EQ(outcome.code, errorBackendFailed) << rest.substr(0, 20);
            EXPECT_EQ(outcome.reason,
                      "127.0.0.1:" + std::to_string(one.port()) + ": its redirection names no usable address")
                << rest.substr(0, 20);
            backend->close();
        }
}

TEST_F(RedisCluster, ARedirectionToANodeThatCannotBeReachedNamesIt) {
    opened();
    one.answer("EVALSHA", "-MOVED 1 127.0.0.1:1\r\n");
    EXPECT_EQ(put().reason, "127.0.0.1:1: cannot be reached: " + errorText(ECONNREFUSED));
}

TEST_F(RedisCluster, KeysThatAreBeingMovedAreAskedForAgain) {
    opened();
    for (int i = 0; i < 3; ++i)
        one.answer("EVALSHA", "-TRYAGAIN Multiple keys request during rehashing of slot\r\n");
    ASSERT_EQ(put().reason, "");
    EXPECT_EQ(puts(one), 4U);
    using std::chrono::milliseconds;
    EXPECT_EQ(waiter.pauses, (std::vector<milliseconds>{milliseconds(50), milliseconds(100), milliseconds(200)}));
}

TEST_F(RedisCluster, KeysThatAreMovedForTooLongFailTheRequestInWords) {
    opened();
    one.usually("EVALSHA", "-TRYAGAIN Multiple keys request during rehashing of slot\r\n");
    const Status outcome = put();
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, "refused: the cluster is moving the name's keys to another node (TRYAGAIN)");
    EXPECT_LT(clusterTime, 2000);
    EXPECT_GT(clusterTime, 1500);
}

TEST_F(RedisCluster, APauseEndsWhenTheHandleIsClosed) {
    opened();
    one.usually("EVALSHA", "-TRYAGAIN x\r\n");
    waiter.closedAfter = 2;
    EXPECT_EQ(put().code, errorBackendFailed);
    EXPECT_EQ(puts(one), 2U);
}

TEST_F(RedisCluster, ANodeThatIsDownIsReplacedByTheMasterThatAnotherNodeNames) {
    useBoth();
    opened();
    two.usually("CLUSTER", slotsAnswer({{0, 16383, "127.0.0.1", two.port()}}));
    one.usually("EVALSHA", "-CLUSTERDOWN The cluster is down\r\n");
    ASSERT_EQ(put().reason, "");
    EXPECT_EQ(puts(one), 1U);
    EXPECT_EQ(puts(two), 1U);
    EXPECT_EQ(waiter.pauses.size(), 1U);
}

TEST_F(RedisCluster, AMasterThatCannotBeReachedIsReplacedByTheOneThatAnotherNodeNames) {
    useBoth();
    one.usually("CLUSTER", slotsAnswer({{0, 16383, "127.0.0.1", 1}}));
    two.usually("CLUSTER", slotsAnswer({{0, 16383, "127.0.0.1", two.port()}}));
    opened();
    ASSERT_EQ(put().reason, "");
    EXPECT_EQ(puts(two), 1U);
}

TEST_F(RedisCluster, AfterADisconnectTheNodesOfTheLastReportServeToo) {
    for (FakeRedis* node : {&one, &two})
        node->usually("CLUSTER", slotsAnswer({{0, 1, "127.0.0.1", one.port()}, {2, 16383, "127.0.0.1", two.port()}}));
    opened();
    backend->close();
    one.usually("CLUSTER", "-LOADING Redis is loading the dataset in memory\r\n");
    opened();
    EXPECT_GE(two.received("CLUSTER").size(), 1U);
}

TEST_F(RedisCluster, WithoutAMasterOfTheSlotReportsIt) {
    const std::string slot = std::to_string(redisSlot("host1"));
    for (const std::string& answer : {std::string("*0\r\n"), slotsAnswer({{0, 16383, "?", 1}}),
                                      slotsAnswer({{0, 16383, "127.0.0.1", 0}}), slotsAnswer({{0, 0, "h", 1}})}) {
        one.usually("CLUSTER", answer);
        opened();
        const Status outcome = put();
        EXPECT_EQ(outcome.code, errorBackendFailed);
        EXPECT_EQ(outcome.reason.substr(0, outcome.reason.find(" of the name")),
                  "127.0.0.1:" + std::to_string(one.port()) +
                      ": the cluster has no master with a usable address for the slot " + slot);
        backend->close();
    }
}

TEST_F(RedisCluster, ARefusalKeepsTheConnection) {
    opened();
    one.answer("EVALSHA", "-OOM command not allowed\r\n");
    EXPECT_EQ(put().code, errorServerRefused);
    EXPECT_EQ(put().code, 0);
    EXPECT_EQ(one.connections(), 1);
}

TEST_F(RedisCluster, AnAnswerToClusterSlotsOfAnotherFormFails) {
    for (const char* answer :
         {"+OK\r\n", ":1\r\n", "$-1\r\n", "*1\r\n:1\r\n", "*1\r\n*2\r\n:0\r\n:1\r\n", "*1\r\n*3\r\n:0\r\n:1\r\n:2\r\n",
          "*1\r\n*3\r\n:-1\r\n:1\r\n*2\r\n$1\r\nh\r\n:1\r\n", "*1\r\n*3\r\n:0\r\n:16384\r\n*2\r\n$1\r\nh\r\n:1\r\n",
          "*1\r\n*3\r\n:0\r\n:1\r\n*1\r\n$1\r\nh\r\n", "*1\r\n*3\r\n:0\r\n:1\r\n*2\r\n$1\r\nh\r\n$1\r\n1\r\n",
          "*1\r\n*3\r\n$1\r\n0\r\n:1\r\n*2\r\n$1\r\nh\r\n:1\r\n", "*9000\r\n"}) {
        one.answer("CLUSTER", answer);
        const Status outcome = backend->open(waiter);
        EXPECT_EQ(outcome.code, errorBackendFailed) << answer;
        EXPECT_NE(outcome.reason, "") << answer;
    }
}

TEST_F(RedisCluster, AReportOrRedirectionTruncatedAnywhereIsAFailure) {
    const std::string slots = slotsAnswer({{0, 16383, "127.0.0.1", one.port()}});
    for (std::size_t length = 0; length < slots.size(); ++length) {
        one.answerAndClose("CLUSTER", slots.substr(0, length));
        EXPECT_EQ(backend->open(waiter).code, errorBackendFailed) << length;
    }
    const std::string moved = answerOf("MOVED", two);
    for (std::size_t length = 0; length < moved.size(); ++length) {
        opened();
        one.answerAndClose("EVALSHA", moved.substr(0, length));
        EXPECT_EQ(put().code, errorBackendFailed) << length;
        backend->close();
    }
    for (std::size_t length = 0; length < 5; ++length) {
        opened();
        one.answer("EVALSHA", answerOf("ASK", two));
        two.answerAndClose("ASKING", std::string("+OK\r\n").substr(0, length));
        EXPECT_EQ(put().code, errorBackendFailed) << length;
        backend->close();
    }
}

TEST_F(RedisCluster, ASlowReportEndsAtTheTimeLimitOfOpening) {
    one.usually("CLUSTER", "*");
    EXPECT_EQ(backend->open(DrippingWaiter(one, "CLUSTER")).code, errorBackendFailed);
    EXPECT_LE(clusterTime, 10000);
    EXPECT_GT(clusterTime, 1000);
}

TEST_F(RedisCluster, ASlowRedirectionEndsAtTheTimeLimitOfARequest) {
    one.usually("EVALSHA", "-MOVED ");
    const DrippingWaiter dripping(one, "EVALSHA");
    ASSERT_EQ(backend->open(dripping).reason, "");
    EXPECT_EQ(put().code, errorBackendFailed);
    EXPECT_LE(clusterTime, 5000);
    EXPECT_GT(clusterTime, 1000);
    backend->close();
}

TEST_F(RedisCluster, ItsPasswordFileIsReadAtEachOpen) {
    const Folder folder;
    use(one.url(), {"u", "file:" + folder.file("secret")});
    EXPECT_EQ(backend->open(waiter).reason,
              "the password file " + folder.file("secret") + " cannot be read: " + errorText(ENOENT));
    writeText(folder.file("secret"), "first");
    opened();
    EXPECT_EQ(one.received("AUTH").back()[2], "first");
}

TEST_F(RedisCluster, ClosingClosesAllConnections) {
    const std::size_t before = entriesOf("/proc/self/fd");
    opened();
    one.answer("EVALSHA", answerOf("MOVED", two));
    ASSERT_EQ(put().code, 0);
    backend->close();
    EXPECT_EQ(backend->watchedDescriptor(), -1);
    EXPECT_EQ(backend->probe().reason, "there is no connection to the cluster");
    EXPECT_TRUE(eventually(
        [&] { return one.openConnections() + two.openConnections() == 0 && entriesOf("/proc/self/fd") == before; }));
}

TEST_F(RedisCluster, AProbeNoticesAClosedConnection) {
    opened();
    ASSERT_EQ(put().code, 0);
    one.hangUp();
    pollfd waited{backend->watchedDescriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&waited, 1, 60000), 1);
    EXPECT_EQ(backend->probe().reason,
              "127.0.0.1:" + std::to_string(one.port()) + ": the server closed the connection");
}

TEST(ClusterLayout, HasEachNodeOnceAndTheMasterOfEachSlot) {
    RedisReplyParser parser;
    ASSERT_TRUE(parser.reset().ok());
    const std::string replica = "*2\r\n" + bulk("r") + ":2\r\n";
    parser.feed("*2\r\n*4\r\n:0\r\n:5\r\n*2\r\n" + bulk("m") + ":1\r\n" + replica +
                "*5\r\n:7\r\n:9\r\n*2\r\n$-1\r\n:3\r\n" + replica + "*2\r\n" + bulk("2001:db8::1") + ":4\r\n");
    const auto reply = parser.next();
    ASSERT_TRUE(reply.ok() && *reply);
    const Result<ClusterLayout> layout = readClusterSlots(**reply, {"asked", 9});
    ASSERT_EQ(layout.status().reason, "");
    EXPECT_EQ(serversText(layout->nodes), "[2001:db8::1]:4,asked:3,m:1,r:2");
    for (const int slot : {0, 5})
        EXPECT_EQ(serverText(*layout->masterOf(static_cast<std::uint16_t>(slot))), "m:1");
    for (const int slot : {7, 9})
        EXPECT_EQ(serverText(*layout->masterOf(static_cast<std::uint16_t>(slot))), "asked:3");
    for (const int slot : {6, 10, 16383})
        EXPECT_EQ(layout->masterOf(static_cast<std::uint16_t>(slot)), nullptr);
}

}  // namespace
