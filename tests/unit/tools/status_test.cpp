//  The output of addrpubd-check --status for a state.
#include "status.h"

#include <gtest/gtest.h>

namespace {

using namespace status;

constexpr Time now{1'764'000'000'500, 5'000'000};

Time ago(std::int64_t seconds) {
    return {now.wall - seconds * 1000, now.boot - seconds * 1000};
}

Server confirmed() {
    Server server;
    server.kind = "rdb";
    server.label = "redis://db";
    server.phase = "connected";
    server.connected = ago(100);
    server.success = ago(20);
    server.next = Next{"check", ago(-40)};
    server.published = {{"host1", "::1", ago(90)}};
    return server;
}

Reading readingOf(const Server& server) {
    Reading reading;
    reading.found = Found::running;
    reading.state = {"1.0.4", "-", 7, ago(200), ago(20), {server}};
    return reading;
}

std::string line(const Server& server) {
    return textOf(readingOf(server), "/run/addrpubd", now, false);
}

TEST(StatusText, AConfirmedServer) {
    EXPECT_EQ(line(confirmed()), "ok   rdb redis://db: confirmed 20 seconds ago, next check in 40 seconds; published "
                                 "host1 ::1 90 seconds ago\n");
    EXPECT_EQ(exitStatus(readingOf(confirmed()), now), exit_confirmed);
}

TEST(StatusText, AServerThatIsNotConnected) {
    Server server = confirmed();
    server.phase = "waiting";
    server.connected.reset();
    server.next = Next{"open", ago(-3)};
    server.failure = Failure{ago(5), 1014, "Connection refused"};
    EXPECT_EQ(line(server), "FAIL rdb redis://db: not connected, next attempt in 3 seconds; 5 seconds ago: Connection "
                            "refused (code 1014); published host1 ::1 90 seconds ago\n");
    EXPECT_EQ(exitStatus(readingOf(server), now), exit_late);
}

TEST(StatusText, APendingChange) {
    Server server = confirmed();
    server.pending = {{"host1", "::2", {}}};
    server.next = Next{"retry", ago(-3)};
    server.failure = Failure{ago(5), 1017, "read only"};
    EXPECT_EQ(line(server), "FAIL rdb redis://db: not confirmed, next retry in 3 seconds; 5 seconds ago: read only "
                            "(code 1017); published host1 ::1 90 seconds ago; pending host1 ::2\n");
    EXPECT_EQ(exitStatus(readingOf(server), now), exit_late);
}

TEST(StatusText, APendingTag) {
    Server server = confirmed();
    server.tag_pending = true;
    EXPECT_NE(line(server).find("pending definition of the tag"), std::string::npos);
    EXPECT_EQ(exitStatus(readingOf(server), now), exit_late);
}

TEST(StatusText, AFailureWithoutASuccessAfterIt) {
    Server server = confirmed();
    server.failure = Failure{ago(5), 1013, "no name"};
    EXPECT_EQ(exitStatus(readingOf(server), now), exit_late);
    server.failure->time = ago(25);
    EXPECT_EQ(exitStatus(readingOf(server), now), exit_confirmed);
    EXPECT_EQ(line(server).find("no name"), std::string::npos);
}

TEST(StatusText, ACheckThatIsLate) {
    Server server = confirmed();
    server.next = Next{"check", ago(120)};
    EXPECT_EQ(exitStatus(readingOf(server), now), exit_confirmed);
    server.next->due = ago(121);
    EXPECT_EQ(exitStatus(readingOf(server), now), exit_late);
    EXPECT_EQ(line(server).substr(0, 83), "FAIL rdb redis://db: late: last confirmed 20 seconds ago, check due since "
                                          "2 minutes")
        << line(server);
}

TEST(StatusText, ARepetitionThatIsLateWithoutChecks) {
    Server server = confirmed();
    server.next.reset();
    server.success = ago(720);
    EXPECT_EQ(exitStatus(readingOf(server), now), exit_confirmed);
    server.success = ago(721);
    EXPECT_EQ(exitStatus(readingOf(server), now), exit_late);
}

TEST(StatusText, NothingPublishedYet) {
    Server server = confirmed();
    server.success.reset();
    server.published.clear();
    EXPECT_EQ(exitStatus(readingOf(server), now), exit_late);
    EXPECT_NE(line(server).find("connected, nothing published yet"), std::string::npos);
    server.phase = "opening";
    EXPECT_NE(line(server).find("connecting for the first time"), std::string::npos);
}

TEST(StatusText, WithoutServersNothingIsConfirmed) {
    Reading reading = readingOf(confirmed());
    reading.state.servers.clear();
    EXPECT_EQ(exitStatus(reading, now), exit_late);
}

TEST(StatusText, OneOfTwoServersIsLate) {
    Reading reading = readingOf(confirmed());
    reading.state.servers.push_back(confirmed());
    EXPECT_EQ(exitStatus(reading, now), exit_confirmed);
    reading.state.servers.front().phase = "waiting";
    EXPECT_EQ(exitStatus(reading, now), exit_late);
}

TEST(StatusText, AnEndedServiceIsNeverShownAsPresent) {
    Reading reading = readingOf(confirmed());
    reading.found = Found::ended;
    const std::string text = textOf(reading, "/run/addrpubd", now, false);
    EXPECT_EQ(text, "not running: the service with pid 7 ended without cleaning up; it wrote its last state 20 seconds "
                    "ago\n");
    EXPECT_EQ(exitStatus(reading, now), exit_not_running);
    EXPECT_EQ(jsonOf(reading, "/run/addrpubd", now).find("redis"), std::string::npos);
    EXPECT_EQ(metricsOf(reading, now).find("redis"), std::string::npos);
}

TEST(StatusText, AStateOfAnEarlierBoot) {
    Reading reading = readingOf(confirmed());
    reading.found = Found::ended;
    const auto named = [&] {
        return textOf(reading, "/f", now, false).find("before the last start of the system") != std::string::npos;
    };
    EXPECT_FALSE(named());
    reading.earlier_boot = true;
    EXPECT_TRUE(named());
    reading.earlier_boot = false;
    reading.state.written.boot = now.boot + 1;
    EXPECT_TRUE(named());
}

TEST(StatusText, NoFileAndAnUnreadableFile) {
    Reading reading;
    EXPECT_EQ(textOf(reading, "/f\n", now, false), "not running, or without a server: there is no /f\\x0a/state\n");
    reading = {Found::unknown, "it is incomplete", {}, false};
    EXPECT_EQ(textOf(reading, "/f", now, false), "unknown: /f/state: it is incomplete\n");
    EXPECT_EQ(exitStatus(reading, now), exit_not_running);
}

TEST(StatusText, ColoursOnRequestOnly) {
    Server server = confirmed();
    EXPECT_EQ(textOf(readingOf(server), "/f", now, true).substr(0, 13), "\033[32mok  \033[0m");
    server.phase = "waiting";
    EXPECT_EQ(textOf(readingOf(server), "/f", now, true).substr(0, 13), "\033[31mFAIL\033[0m");
}

TEST(StatusText, EscapeCharactersOfTheFileAreNotPrinted) {
    Server server = confirmed();
    server.label = "a\033[2Jb";
    server.failure = Failure{ago(1), 1017, "c\033d"};
    server.published = {{"e\033", "f\033g", ago(1)}};
    EXPECT_EQ(line(server).find('\033'), std::string::npos);
}

TEST(StatusText, DurationsInWords) {
    EXPECT_EQ(duration(-1), "0 seconds");
    EXPECT_EQ(duration(1999), "1 second");
    EXPECT_EQ(duration(119'999), "119 seconds");
    EXPECT_EQ(duration(120'000), "2 minutes");
    EXPECT_EQ(duration(7'199'999), "119 minutes");
    EXPECT_EQ(duration(7'200'000), "2 hours");
    EXPECT_EQ(duration(172'800'000), "2 days");
}

TEST(StatusText, ARequestIsShownAsNameAndAddresses) {
    const auto summary = [](const std::string& request) { return summaryOf({{}, request, {}}); };
    EXPECT_EQ(summary(R"({"item":{"name":"host1","ipv6s":["::1","::2"],"ipv6":"::1"}})"), "host1 ::1,::2");
    for (const char* other :
         {"", "text", R"({"name":"a"})", R"({"name":"a","ipv6s":[]})", R"({"name":5,"ipv6s":["::1"]})",
          R"({"name":"a","ipv6s":["::1)", R"({"name":"a\"b","ipv6s":["::1"]})", R"("ipv6s":[)"})
        EXPECT_EQ(summary(other), other);
}

TEST(StatusTime, ASteppedClockDoesNotChangeAges) {
    const Time stepped{now.wall + 3'600'000, now.boot};
    EXPECT_EQ(secondsText(ago(20), now), "1763999980.500");
    EXPECT_EQ(secondsText(ago(20), stepped), "1764003580.500");
    EXPECT_EQ(line(confirmed()), textOf(readingOf(confirmed()), "/run/addrpubd", stepped, false));
}

TEST(StatusTime, BeforeTheFirstSecondOf1970) {
    EXPECT_EQ(secondsText({0, 0}, {0, 1500}), "-1.500");
}

TEST(StatusJson, EveryMember) {
    Server server = confirmed();
    server.pending = {{"", "a\"\\\n\xff", {}}};
    server.failure = Failure{ago(5), 1017, "no"};
    EXPECT_EQ(
        jsonOf(readingOf(server), "/f", now),
        R"({"running":true,"library":"1.0.4","pid":7,"started":1763999800.500,"written":1763999980.500,"servers":[)"
        R"({"kind":"rdb","server":"redis://db","phase":"connected","confirmed":false,"connected":1763999900.500,)"
        R"("success":1763999980.500,"failure":{"time":1763999995.500,"code":1017,"reason":"no"},)"
        R"("next":{"action":"check","time":1764000040.500},"connections":0,"losses":0,"retries":0,"refusals":0,)"
        R"("tag_pending":false,"pending":[{"name":null,"value":"a\"\\\u000a\u00ff","summary":"a\"\\\u000a\u00ff"}],)"
        R"("published":[{"name":"host1","value":"::1","summary":"host1 ::1","since":1763999910.500}]}]})"
        "\n");
}

TEST(StatusJson, NotRunning) {
    EXPECT_EQ(jsonOf({}, "/f", now),
              "{\"running\":false,\"problem\":\"not running, or without a server: there is no /f/state\"}\n");
}

TEST(StatusMetrics, ASampleForEachServer) {
    Reading reading = readingOf(confirmed());
    reading.state.servers.push_back(confirmed());
    reading.state.servers.back().label = "a\"\\\n\xff";
    const std::string text = metricsOf(reading, now);
    EXPECT_NE(text.find("addrpubd_up 1\n"), std::string::npos);
    EXPECT_NE(text.find("\n# TYPE addrpubd_server_confirmed gauge\n"
                        "addrpubd_server_confirmed{kind=\"rdb\",server=\"redis://db\"} 1\n"
                        "addrpubd_server_confirmed{kind=\"rdb\",server=\"a\\\"\\\\\\\\\\\\x0a\\\\xff\"} 1\n"),
              std::string::npos);
    EXPECT_NE(text.find("addrpubd_server_last_success_timestamp_seconds{kind=\"rdb\",server=\"redis://db\"} "
                        "1763999980.500\n"),
              std::string::npos);
}

TEST(StatusMetrics, TheTagIsPendingInAdditionToTheEightItemsOfTheFile) {
    Server server = confirmed();
    server.pending.assign(8, {"host1", "::1", {}});
    server.tag_pending = true;
    const std::string text = metricsOf(readingOf(server), now);
    EXPECT_NE(text.find("# HELP addrpubd_server_pending_items Number of values, requests and tags that the server has "
                        "not accepted, at most 9.\n"
                        "# TYPE addrpubd_server_pending_items gauge\n"
                        "addrpubd_server_pending_items{kind=\"rdb\",server=\"redis://db\"} 9\n"),
              std::string::npos);
}

//  The state file contains no other time of the start of the process.
TEST(StatusMetrics, TheStartIsTheFirstWrite) {
    const Reading reading = readingOf(confirmed());
    EXPECT_NE(metricsOf(reading, now)
                  .find("# HELP addrpubd_start_time_seconds When the process of the service first "
                        "wrote its state.\n# TYPE addrpubd_start_time_seconds gauge\n"
                        "addrpubd_start_time_seconds " +
                        secondsText(reading.state.started, now) + "\n"),
              std::string::npos);
}

TEST(StatusMetrics, TheSameServerTwiceHasOneSample) {
    Reading reading = readingOf(confirmed());
    reading.state.servers.push_back(confirmed());
    const std::string text = metricsOf(reading, now);
    EXPECT_EQ(text.find("addrpubd_server_connected{"), text.rfind("addrpubd_server_connected{"));
}

TEST(StatusMetrics, WithoutAServiceTheOnlySampleIsUpWithZero) {
    EXPECT_EQ(metricsOf({}, now), "# HELP addrpubd_up Whether the service is running and its state can be read.\n"
                                  "# TYPE addrpubd_up gauge\naddrpubd_up 0\n");
}

}  // namespace
