//  The text of the state file, without threads and files.
#include "engine/server_state.h"
#include "engine/state_board.h"
#include "engine/state_text.h"
#include "open_support.h"

#include <gtest/gtest.h>

namespace {

using namespace rdbopen;
using namespace opentest;

constexpr Moment early{1000, 10};
constexpr Moment late{2000, 20};

const Status lost = backendFailed("the connection was refused");

//  The state of one server and the data that it describes.
struct Subject {
    Subject() { state.describe("rdb", "fake://server"); }

    //  Records a put that ends with `status`.
    void put(const std::string& value, const Status& status, Moment now) {
        data.recordValue(recordOf("host1", value), status.code, {});
        state.exchanged(ServerState::Cause::call, now, status, data);
    }
    //  Records a check or retry that ends with `status`.
    void exchange(Moment now, const Status& status) { state.exchanged(ServerState::Cause::worker, now, status, data); }
    std::string text(std::optional<ServerState::Next> next = {}) { return state.stateText(data, next); }
    bool has(const std::string& line) { return ("\n" + text()).find("\n" + line + "\n") != std::string::npos; }
    bool hasKey(const std::string& key) { return ("\n" + text()).find("\n" + key + " ") != std::string::npos; }

    ServerState state;
    DesiredState data;
};

TEST(StateText, EscapesBytesThatWouldEndALineOrAWord) {
    StateText text;
    text.line("a").text("b c\n\x7f\\d").line("e").word("f g\t").word("").word("-");
    EXPECT_EQ(std::move(text).take(), "a b c\\x0a\\x7f\\\\d\ne f\\x20g\\x09 - \\x2d\n");
}

TEST(StateText, CutsALongText) {
    StateText text;
    text.line("a").text(std::string(maxStateBytes + 1, 'x'));
    EXPECT_EQ(std::move(text).take(), "a " + std::string(maxStateBytes, 'x') + "\n");
}

TEST(StateText, HasNoNegativeNumber) {
    StateText text;
    text.line("a").moment({-5, 7});
    EXPECT_EQ(std::move(text).take(), "a 0 7\n");
}

TEST(StateText, TheFileHasAHeadTheServersAndAnEnd) {
    const std::string text = stateFileText({early, late, "b-o-o-t", 7}, "server rdb\n");
    EXPECT_EQ(text, "addrpubd-state 1\nlibrary " RDBAPI_VERSION
                    "\npid 7\nboot b-o-o-t\nstarted 1000 10\nwritten 2000 20\nserver rdb\nend\n");
}

TEST(ServerStateText, BeforeTheFirstAttemptTheServerIsOpening) {
    EXPECT_EQ(Subject().text(), "server rdb\nlabel fake://server\nphase opening\nconnections 0\nlosses 0\nretries 0\n"
                                "refusals 0\n");
}

TEST(ServerStateText, ALossNamesReasonAndNextAttempt) {
    Subject subject;
    subject.state.lost(early, lost);
    EXPECT_EQ(subject.text(ServerState::Next{"open", late}),
              "server rdb\nlabel fake://server\nphase waiting\nfailure 1000 10 1014 the connection was refused\n"
              "connections 0\nlosses 1\nretries 0\nrefusals 0\nnext open 2000 20\n");
}

TEST(ServerStateText, ALossEndsTheConnection) {
    Subject subject;
    subject.state.connected(early);
    EXPECT_TRUE(subject.has("connected 1000 10"));
    subject.state.lost(late, lost);
    EXPECT_FALSE(subject.hasKey("connected"));
}

TEST(ServerStateText, AnAcceptedValueIsPublishedSinceThen) {
    Subject subject;
    subject.put("::1", {}, early);
    EXPECT_TRUE(subject.has("success 1000 10"));
    EXPECT_TRUE(subject.has("published 1000 10 host1 ::1"));
}

TEST(ServerStateText, ACheckKeepsTheTimeOfPublication) {
    Subject subject;
    subject.put("::1", {}, early);
    subject.exchange(late, {});
    EXPECT_TRUE(subject.has("success 2000 20"));
    EXPECT_TRUE(subject.has("published 1000 10 host1 ::1"));
}

TEST(ServerStateText, ARefusedValueIsPendingBesideThePublishedOne) {
    Subject subject;
    subject.put("::1", {}, early);
    subject.put("::2", serverRefused("no"), late);
    EXPECT_TRUE(subject.has("failure 2000 20 1017 no"));
    EXPECT_TRUE(subject.has("pending host1 ::2"));
    EXPECT_TRUE(subject.has("published 1000 10 host1 ::1"));
    EXPECT_TRUE(subject.has("success 1000 10"));
    EXPECT_TRUE(subject.has("refusals 1"));
}

TEST(ServerStateText, AValueThatWasPendingIsPublishedWhenItIsAccepted) {
    Subject subject;
    subject.put("::1", {}, early);
    subject.put("::1", serverRefused("no"), early);
    subject.put("::1", {}, late);
    EXPECT_TRUE(subject.has("published 2000 20 host1 ::1"));
    EXPECT_FALSE(subject.hasKey("pending"));
}

TEST(ServerStateText, AnUpdateRequestHasNoName) {
    Subject subject;
    subject.data.recordRequest("{\"a\": 1}", errorNone, {});
    subject.exchange(early, {});
    EXPECT_TRUE(subject.has("published 1000 10 - {\"a\": 1}"));
}

TEST(ServerStateText, WithoutDataThereIsNoSuccess) {
    Subject subject;
    subject.exchange(early, {});
    EXPECT_FALSE(subject.hasKey("success"));
}

TEST(ServerStateText, APendingTagIsNamed) {
    Subject subject;
    subject.data.recordLookup(tagNamed("host1"), errorBackendFailed);
    EXPECT_TRUE(subject.has("pending-tag"));
}

TEST(ServerStateText, AMissingTagIsNoFailure) {
    Subject subject;
    subject.data.recordLookup(tagNamed("host1"), errorNoSuchTag);
    subject.exchange(early, {errorNoSuchTag, {}});
    EXPECT_FALSE(subject.hasKey("failure"));
}

TEST(ServerStateText, AnInterruptedCheckChangesNothing) {
    Subject subject;
    subject.put("::1", {}, early);
    const std::string before = subject.text();
    subject.exchange(late, {errorPreempted, {}});
    EXPECT_EQ(subject.text(), before);
}

TEST(ServerStateText, AnInterruptedCheckOfPendingDataIsNoFailure) {
    Subject subject;
    subject.put("::1", serverRefused("no"), early);
    subject.exchange(late, {errorPreempted, {}});
    EXPECT_TRUE(subject.has("failure 1000 10 1017 no"));
}

TEST(ServerStateText, ARefusedCheckIsAFailure) {
    Subject subject;
    subject.put("::1", {}, early);
    subject.exchange(late, serverRefused("no right to read"));
    EXPECT_TRUE(subject.has("failure 2000 20 1017 no right to read"));
    EXPECT_TRUE(subject.has("success 1000 10"));
}

TEST(ServerStateText, ABadRequestIsAFailure) {
    Subject subject;
    subject.exchange(early, {errorBadRequest, "no name"});
    EXPECT_TRUE(subject.has("failure 1000 10 1013 no name"));
}

TEST(ServerStateText, ASuccessAloneIsNoChange) {
    Subject subject;
    subject.put("::1", {}, early);
    subject.text();
    subject.exchange(late, {});
    EXPECT_FALSE(subject.state.changed());
}

TEST(ServerStateText, ASuccessAfterAFailureIsAChange) {
    Subject subject;
    subject.put("::1", serverRefused("no"), early);
    subject.text();
    subject.put("::1", {}, late);
    EXPECT_TRUE(subject.state.changed());
}

TEST(ServerStateText, AfterABadRequestOnlyACallSucceeds) {
    Subject subject;
    subject.put("::1", {}, early);
    subject.exchange(early, {errorBadRequest, "no name"});
    subject.text();
    subject.exchange(late, {});
    EXPECT_TRUE(subject.has("success 1000 10"));
    EXPECT_FALSE(subject.state.changed());
    subject.put("::1", {}, late);
    EXPECT_TRUE(subject.state.changed());
    EXPECT_TRUE(subject.has("success 2000 20"));
}

TEST(ServerStateText, AfterABadRequestARepetitionLetsTheNextCheckSucceed) {
    Subject subject;
    subject.put("::1", {}, early);
    subject.exchange(early, {errorBadRequest, "no name"});
    subject.state.repeated();
    EXPECT_TRUE(subject.has("success 1000 10"));
    subject.exchange(late, {});
    EXPECT_TRUE(subject.has("success 2000 20"));
}

TEST(ServerStateText, ASuccessIsLaterThanTheFailureBeforeIt) {
    Subject subject;
    subject.put("::1", serverRefused("no"), late);
    subject.put("::1", {}, late);
    EXPECT_TRUE(subject.has("failure 2000 20 1017 no"));
    EXPECT_TRUE(subject.has("success 2001 21"));
}

TEST(ServerStateText, ListsAtMostAFixedNumberOfPublishedAndOfPendingItems) {
    Subject subject;
    for (std::size_t i = 0; i < maxStateItems + 1; ++i) {
        subject.data.recordValue(recordOf("host" + std::to_string(i), "1"), errorNone, {});
        subject.data.recordValue(recordOf("guest" + std::to_string(i), "1"), errorTimedOut, {});
    }
    subject.exchange(early, {});
    const std::string text = subject.text();
    const auto count = [&text](const std::string& key) {
        std::size_t found = 0;
        for (std::size_t at = 0; (at = text.find("\n" + key + " ", at)) != text.npos; ++at)
            ++found;
        return found;
    };
    EXPECT_EQ(count("published"), maxStateItems);
    EXPECT_EQ(count("pending"), maxStateItems);
}

}  // namespace
