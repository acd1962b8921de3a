//  The parser of state files, with the text that the client library writes, and with hostile input.
#include "engine/server_state.h"
#include "engine/state_board.h"
#include "status_file.h"

#include <gtest/gtest.h>

namespace {

using status::State;

const std::string head = "addrpubd-state 1\n";

std::optional<State> parsed(const std::string& text) {
    std::string problem;
    std::optional<State> state = status::parseState(text, problem);
    EXPECT_EQ(problem.empty(), state.has_value()) << problem;
    return state;
}

std::string problemOf(const std::string& text) {
    std::string problem;
    status::parseState(text, problem);
    return problem;
}

//  Returns the problem of a file with one server and this line.
std::string problemOfLine(const std::string& line) {
    return problemOf(head + "server rdb\nphase opening\n" + line + "\nend\n");
}

TEST(StatusParse, ReadsWhatTheLibraryWrites) {
    rdbopen::DesiredState data;
    rdbopen::ServerState server;
    server.describe("rdb", "redis://a b\\\n");
    RdbSnapshot record{};
    std::strcpy(record.name, "host 1");
    std::strcpy(record.value, "::1");
    record.valuelen = 3;
    data.recordValue(record, 0, {});
    server.connected({1, 2});
    server.exchanged(rdbopen::ServerState::Cause::call, {3, 4}, {}, data);
    std::strcpy(record.value, "::2");
    data.recordValue(record, rdbopen::errorServerRefused, {});
    server.exchanged(rdbopen::ServerState::Cause::call, {5, 6}, rdbopen::serverRefused("read\nonly"), data);
    data.recordLookup(
        [] {
            RdbTag tag{};
            tag.name[0] = 't';
            return tag;
        }(),
        rdbopen::errorTimedOut);
    server.retried();
    const std::string part = server.stateText(data, rdbopen::ServerState::Next{"retry", {7, 8}});
    const auto state = parsed(rdbopen::stateFileText({{10, 11}, {12, 13}, "b", 99}, part));
    ASSERT_TRUE(state);
    EXPECT_EQ(state->pid, 99U);
    EXPECT_EQ(state->library, RDBAPI_VERSION);
    EXPECT_EQ(state->boot, "b");
    EXPECT_EQ(state->started.boot, 11);
    EXPECT_EQ(state->written.wall, 12);
    ASSERT_EQ(state->servers.size(), 1U);
    const status::Server& read = state->servers[0];
    EXPECT_EQ(read.kind, "rdb");
    EXPECT_EQ(read.label, "redis://a b\\\n");
    EXPECT_EQ(read.phase, "connected");
    EXPECT_EQ(read.connected->boot, 2);
    EXPECT_EQ(read.success->wall, 3);
    EXPECT_EQ(read.failure->time.boot, 6);
    EXPECT_EQ(read.failure->code, 1017);
    EXPECT_EQ(read.failure->reason, "read\nonly");
    EXPECT_EQ(read.connections + read.refusals + read.retries, 3U);
    EXPECT_EQ(read.losses, 0U);
    ASSERT_EQ(read.pending.size(), 1U);
    EXPECT_EQ(read.pending[0].name, "host 1");
    EXPECT_EQ(read.pending[0].value, "::2");
    EXPECT_TRUE(read.tag_pending);
    ASSERT_EQ(read.published.size(), 1U);
    EXPECT_EQ(read.published[0].value, "::1");
    EXPECT_EQ(read.published[0].since->wall, 3);
    EXPECT_EQ(read.next->action, "retry");
    EXPECT_EQ(read.next->due.boot, 8);
}

TEST(StatusParse, IgnoresUnknownLines) {
    EXPECT_TRUE(parsed(head + "news 5\nserver dns\nphase waiting\nnews 5\n\nend\n"));
}

TEST(StatusParse, NamesAForeignVersion) {
    EXPECT_NE(problemOf("addrpubd-state 2\nend\n").find("another version"), std::string::npos);
    EXPECT_NE(problemOf("addrpubd-state 10\nend\n").find("another version"), std::string::npos);
}

TEST(StatusParse, RefusesOtherFiles) {
    for (const char* text : {"", "\n", "x", "addrpubd-state 1", "{}\n", "Addrpubd-state 1\nend\n"})
        EXPECT_EQ(problemOf(text), "it is not a state file of addrpubd") << text;
}

TEST(StatusParse, RefusesAnIncompleteFile) {
    const std::string whole = head + "pid 5\nserver rdb\nphase opening\nend\n";
    ASSERT_EQ(problemOf(whole), "");
    for (std::size_t length = head.size(); length < whole.size(); ++length)
        EXPECT_EQ(problemOf(whole.substr(0, length)), "it is incomplete") << length;
    EXPECT_EQ(problemOf(whole + "x"), "text follows its end");
}

TEST(StatusParse, RefusesMalformedLines) {
    for (const char* line : {"success",
                             "success 1",
                             "success 1 2 3",
                             "success -1 2",
                             "success 1 9007199254740993",
                             "success 1 x",
                             "success 1  2",
                             "success 99999999999999999999 1",
                             "failure 1 2",
                             "failure 1 2 x y",
                             "failure 1 2 -3 y",
                             "failure 1 2 99999999999 y",
                             "phase up",
                             "phase",
                             "label \\",
                             "label \\x",
                             "label \\x4",
                             "label \\x4G",
                             "label \\n",
                             "pending",
                             "pending \\x1 v",
                             "published 1 2",
                             "published 1 x - v",
                             "next open",
                             "next open 1",
                             "next jump 1 2",
                             "next open 1 2 3",
                             "pending-tag x",
                             "losses",
                             "losses -1",
                             "losses 1 ",
                             "losses 18446744073709551616",
                             "server",
                             "server x",
                             "server rdb x"})
        EXPECT_EQ(problemOfLine(line), "line 4 is malformed") << line;
}

TEST(StatusParse, AcceptsTheLimits) {
    for (const char* line : {"success 0 9007199254740992", "failure 1 2 3 ", "label ", "pending - ", "published 1 2 - ",
                             "losses 18446744073709551615", "pending-tag"})
        EXPECT_EQ(problemOfLine(line), "") << line;
}

TEST(StatusParse, RefusesAServerWithoutAPhase) {
    EXPECT_EQ(problemOf(head + "server rdb\nend\n"), "a server has no phase");
}

TEST(StatusParse, RefusesTooManyServersAndItems) {
    std::string text = head;
    for (int i = 0; i < 65; ++i)
        text += "server rdb\nphase opening\n";
    EXPECT_EQ(problemOf(text + "end\n"), "line 130 is malformed");
    for (const std::string item : {"pending - v\n", "published 1 2 - v\n"}) {
        text = head + "server rdb\nphase opening\n";
        for (int i = 0; i < 65; ++i)
            text += item;
        EXPECT_EQ(problemOf(text + "end\n"), "line 68 is malformed");
    }
}

}  // namespace
