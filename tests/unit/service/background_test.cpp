//  The background start; parent and child are tested separately. The tests check the order of calls, the output, and
//  the time limits.
#include "fake_process.h"

#include "no_memory.h"
#include "runcls.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <signal.h>
#include <unistd.h>

namespace {

using namespace std::string_literals;

const Lines queue_removed_and_descriptors_redirected = {
    "msgctl 7 remove", "open /dev/null for both", "dup2 77 0", "dup2 77 1", "dup2 77 2", "close 77"};

class Parent : public testing::Test {
protected:
    Parent() { system.forked = 4321; }

    //  Runs the parent, which receives the first message at its first poll, the next at the second, and so on. Returns
    //  its output.
    std::string prints(const Lines& messages) {
        for (std::size_t i = 0; i < messages.size(); ++i)
            system.incoming[static_cast<int>(i) + 1].bytes = messages[i];
        EXPECT_EQ(system.start(), 0);
        return system.print;
    }
    FakeProcess system;
};

TEST_F(Parent, MakesItsCallsInOrderFromTheClaimToDetaching) {
    prints({"finished\0"s});
    Lines expected = {"claim pid file", "fork", "close pid file", "msgget 23213 create 666", "msgrcv 7"};
    expected.insert(expected.end(), queue_removed_and_descriptors_redirected.begin(),
                    queue_removed_and_descriptors_redirected.end());
    EXPECT_EQ(system.calls, expected);
    EXPECT_EQ(system.daemon.pid_fd, -1);
}

TEST_F(Parent, PrintsTheTextsOfASuccessfulStartAndALineFeed) {
    EXPECT_EQ(prints({"\nstart...\r\0"s, "Start success!\n\n\0"s, "finished\0"s}),
              "\nstart...\rStart success!\n\nfinished\n");
    EXPECT_EQ(system.polls, 3);
}

TEST_F(Parent, PrintsTheTextsOfAFailedStart) {
    EXPECT_EQ(prints({"\nstart...\r\0"s, "Start failed!\n\0"s, "finished\0"s}),
              "\nstart...\rStart failed!\nfinished\n");
}

TEST_F(Parent, PrintsTheTextsOfAFailedChangeOfDirectory) {
    EXPECT_EQ(prints({"chdir failed\n\0"s, "finished\0"s}), "chdir failed\nfinished\n");
}

TEST_F(Parent, AcceptsTheEndMarkerInMixedCase) {
    EXPECT_EQ(prints({"FiNiShEd\0"s, "more\0"s}), "FiNiShEd\n");
    EXPECT_EQ(system.polls, 1);
}

TEST_F(Parent, ATextThatContinuesAfterTheEndMarkerDoesNotEndTheOutput) {
    EXPECT_EQ(prints({"finished\n\0"s, "finished!\0"s, "finished\0"s}), "finished\nfinished!finished\n");
}

TEST_F(Parent, EachTextIsFlushedAtOnce) {
    Lines seen;
    system.on_call = [&seen](const std::string& line) {
        if (line == "msgrcv 7")
            seen.push_back(std::to_string(lseek(STDOUT_FILENO, 0, SEEK_CUR)));
    };
    prints({"one\0"s, "three\0"s, "finished\0"s});
    EXPECT_EQ(seen, (Lines{"0", "3", "8"}));
}

TEST_F(Parent, OlderTextsInTheQueueArePrintedFirst) {
    EXPECT_EQ(prints({"stale\n\0"s, "\nstart...\r\0"s, "finished\0"s}), "stale\n\nstart...\rfinished\n");
}

TEST_F(Parent, ATextOf512BytesIsPrintedCompletely) {
    EXPECT_EQ(prints({std::string(512, 'm'), "\0"s, "finished\0"s}), std::string(512, 'm') + "finished\n");
}

TEST_F(Parent, AMessageOfMoreThan512BytesIsNotPrinted) {
    for (int poll = 1; poll <= 400; ++poll)
        system.incoming[poll].bytes = std::string(513, 'm');
    EXPECT_EQ(system.start(), 0);
    EXPECT_EQ(system.print, "");
    EXPECT_EQ(system.polls, 150);
    EXPECT_EQ(system.receptions.front(), (std::pair<std::size_t, long>{512, 0}));
}

//  The buffer is zeroed only once. So a message without a zero byte is followed by the rest of an earlier, longer
//  message.
TEST_F(Parent, AMessageWithoutAZeroByteIsFollowedByOlderBytes) {
    EXPECT_EQ(prints({"abcdef\0"s, "XY", "finished\0"s}), "abcdefXYcdeffinished\n");
}

TEST_F(Parent, AnEmptyMessageIsIgnored) {
    for (int poll = 1; poll <= 200; ++poll)
        system.incoming[poll].bytes = "";
    EXPECT_EQ(system.start(), 0);
    EXPECT_EQ(system.print, "");
    EXPECT_EQ(system.polls, 150);
}

TEST_F(Parent, AMessageOfOneZeroByteCountsAsATextButPrintsNothing) {
    system.incoming[1].bytes = "\0"s;
    EXPECT_EQ(system.start(), 0);
    EXPECT_EQ(system.print, "");
    EXPECT_EQ(system.polls, 300);
}

TEST_F(Parent, PollsASilentChild150Times) {
    EXPECT_EQ(prints({}), "");
    EXPECT_EQ(system.polls, 150);
}

TEST_F(Parent, PollsAChildThatSentAText300Times) {
    EXPECT_EQ(prints({"text\n\0"s}), "text\n");
    EXPECT_EQ(system.polls, 300);
}

//  Returns the number of polls of a parent that receives one text, at the given poll.
int polls_with_text_at(int poll) {
    FakeProcess system;
    system.incoming[poll].bytes = "text\n\0"s;
    EXPECT_EQ(system.start(), 0);
    EXPECT_EQ(system.print, "text\n");
    return system.polls;
}

//  Poll 102 is the first that lowers the limit if there was no text. It lowers the limit after it has read its message.
TEST(ParentLimit, AfterPoll102WithoutATextTheLimitIs150) {
    EXPECT_EQ(polls_with_text_at(100), 300);
    EXPECT_EQ(polls_with_text_at(101), 300);
    EXPECT_EQ(polls_with_text_at(102), 300);
    EXPECT_EQ(polls_with_text_at(103), 150);
    EXPECT_EQ(polls_with_text_at(150), 150);
}

TEST_F(Parent, AtTheLimitTheQueueIsRemovedAndNothingMoreIsPrinted) {
    EXPECT_EQ(prints({"text\n\0"s}), "text\n");
    EXPECT_EQ(Lines(system.calls.end() - 6, system.calls.end()), queue_removed_and_descriptors_redirected);
}

TEST_F(Parent, WithoutAQueueTheParentPolls150TimesAndRemovesNothing) {
    system.queue = -1;
    EXPECT_EQ(prints({"text\0"s}), "");
    EXPECT_EQ(system.polls, 150);
    EXPECT_TRUE(system.receptions.empty());
    EXPECT_EQ(std::count(system.calls.begin(), system.calls.end(), "msgctl -1 remove"), 0);
    EXPECT_EQ(system.calls.back(), "close 77");
}

TEST_F(Parent, WithoutDevNullTheParentKeepsTheTerminal) {
    system.null_device = -1;
    prints({"finished\0"s});
    EXPECT_EQ(system.calls.back(), "open /dev/null for both");
}

TEST_F(Parent, AFailedForkReturnsMinus1AndPrintsNothing) {
    system.forked = -1;
    EXPECT_EQ(system.start(), -1);
    EXPECT_EQ(system.print, "");
    EXPECT_EQ(system.calls, (Lines{"claim pid file", "fork"}));
}

TEST_F(Parent, ARunningInstanceIsReportedWithoutAFork) {
    system.lock = [](int) { return FakeProcess::Lock{F_WRLCK, 77}; };
    EXPECT_EQ(system.start(), 0);
    EXPECT_EQ(system.print, "theservice alreay runging! pid = 77\n");
    EXPECT_EQ(system.calls, Lines{});
}

TEST_F(Parent, WithoutAccessToThePidFileItReturns1WithoutAFork) {
    system.pid_file_refused = [](int) { return true; };
    EXPECT_EQ(system.start(), 1);
    EXPECT_EQ(system.print, "Access Error! Please use root account!\n");
    EXPECT_EQ(system.calls, Lines{});
}

TEST_F(Parent, OutputIsFlushedBeforeTheFork) {
    bool flushed = false;
    system.on_call = [&flushed](const std::string& line) {
        if (line == "fork")
            flushed = lseek(STDOUT_FILENO, 0, SEEK_CUR) == 5;
    };
    system.incoming[1].bytes = "finished\0"s;
    system.output_of([this] {
        std::printf("ahead");
        system.daemon.start();
    });
    EXPECT_TRUE(flushed);
}

//  While an object exists, SIGPIPE has a handler, flags and a signal mask that differ from the default.
class SigpipeHandler {
public:
    SigpipeHandler() {
        struct sigaction own = {};
        own.sa_sigaction = [](int, siginfo_t*, void*) {};
        own.sa_flags = SA_SIGINFO | SA_RESTART;
        sigaddset(&own.sa_mask, SIGUSR1);
        sigaction(SIGPIPE, &own, &before_);
        sigaction(SIGPIPE, nullptr, &own_);
    }
    ~SigpipeHandler() { sigaction(SIGPIPE, &before_, nullptr); }
    SigpipeHandler(const SigpipeHandler&) = delete;
    SigpipeHandler& operator=(const SigpipeHandler&) = delete;

    bool isInPlace() const {
        struct sigaction now = {};
        sigaction(SIGPIPE, nullptr, &now);
        return now.sa_sigaction == own_.sa_sigaction && now.sa_flags == own_.sa_flags &&
               sigismember(&now.sa_mask, SIGUSR1) == 1;
    }

private:
    struct sigaction before_ = {};
    struct sigaction own_ = {};
};

TEST_F(Parent, TheDispositionOfSigpipeIsUnchangedAtEachCall) {
    const SigpipeHandler handler;
    Lines elsewise;
    system.on_call = [&](const std::string& line) {
        if (!handler.isInPlace())
            elsewise.push_back(line);
    };
    prints({"text\n\0"s, "finished\0"s});
    EXPECT_EQ(elsewise, Lines{});
    EXPECT_TRUE(handler.isInPlace());
}

class Child : public testing::Test {
protected:
    Child() { system.forked = 0; }

    //  Returns the calls of a child, which are those after the fork.
    Lines calls_of_child() {
        const auto fork = std::find(system.calls.begin(), system.calls.end(), "fork");
        return fork == system.calls.end() ? Lines{"no fork"} : Lines(fork + 1, system.calls.end());
    }

    FakeProcess system;
};

TEST_F(Child, MakesItsCallsInOrderFromDetachingToPublishing) {
    system.turns = 3;
    EXPECT_EQ(system.start(), std::nullopt);
    EXPECT_EQ(
        calls_of_child(),
        (Lines{"msgget 23213 create 666", "setsid", "chdir /", "umask 0", "claim pid file", "msgsnd 7 |start...|",
               "start service", "open /dev/null for both", "dup2 77 0", "dup2 77 1", "dup2 77 2", "close 77",
               "msgsnd 7 Start success!||", "msgsnd 7 finished", "signal 2 onExitSignal", "signal 15 onExitSignal",
               "publish of the started object", "publish of the started object", "publish of the started object"}));
    EXPECT_EQ(system.print, "");
}

TEST_F(Child, TheTextsOfASuccessfulStartAreExact) {
    system.start();
    EXPECT_EQ(system.sent, (Lines{"\nstart...\r\0"s, "Start success!\n\n\0"s, "finished\0"s}));
}

TEST_F(Child, StoresTheServiceObjectBetweenStartAndReport) {
    Lines stored;
    system.on_call = [this, &stored](const std::string& line) {
        if (line == "start service" || line.starts_with("msgsnd"))
            stored.push_back(line + (system.daemon.application != nullptr ? ": stored" : ": not yet"));
    };
    system.start();
    EXPECT_EQ(stored, (Lines{"msgsnd 7 |start...|: not yet", "start service: not yet",
                             "msgsnd 7 Start success!||: stored", "msgsnd 7 finished: stored"}));
    EXPECT_EQ(static_cast<void*>(system.daemon.application), system.run);
}

TEST_F(Child, WritesItsPidAndKeepsThePidFileOpen) {
    system.start();
    EXPECT_EQ(system.daemon.pid_fd, system.pid_file);
    char text[32] = {};
    ASSERT_GT(pread(system.pid_file, text, sizeof text, 0), 0);
    EXPECT_EQ(text, std::to_string(getpid()) + "\n");
}

TEST_F(Child, AFailedChangeOfDirectoryIsReportedAndReturns2) {
    system.chdir_result = -1;
    EXPECT_EQ(system.start(), 2);
    EXPECT_EQ(system.sent, (Lines{"chdir failed\n\0"s, "finished\0"s}));
    EXPECT_EQ(calls_of_child(),
              (Lines{"msgget 23213 create 666", "setsid", "chdir /", "msgsnd 7 chdir failed|", "msgsnd 7 finished"}));
}

TEST_F(Child, AFailedStartIsReportedReleasesThePidFileAndExitsWith4) {
    system.starts = false;
    EXPECT_EQ(system.start(), std::nullopt);
    EXPECT_EQ(system.exit_status, 4);
    EXPECT_EQ(system.sent, (Lines{"\nstart...\r\0"s, "Start failed!\n\0"s, "finished\0"s}));
    const Lines calls = calls_of_child();
    EXPECT_EQ(Lines(calls.end() - 5, calls.end()),
              (Lines{"start service", "msgsnd 7 Start failed!|", "msgsnd 7 finished", "close pid file", "exit 4"}));
    EXPECT_EQ(system.daemon.pid_fd, -1);
    EXPECT_EQ(system.daemon.application, nullptr);
}

TEST_F(Child, WithoutMemoryForTheServiceObjectTheStartFails) {
    const NoMemory refused(sizeof(CRunCls));
    EXPECT_EQ(system.start(), std::nullopt);
    EXPECT_EQ(system.exit_status, 4);
    EXPECT_EQ(system.sent, (Lines{"\nstart...\r\0"s, "Start failed!\n\0"s, "finished\0"s}));
}

TEST_F(Child, OutputDuringTheStartReachesTheTerminal) {
    system.start_prints = "Load x failed.\n";
    system.starts = false;
    system.start();
    EXPECT_EQ(system.print, "Load x failed.\n");
}

TEST_F(Child, OutputIsFlushedBeforeTheRedirection) {
    system.start_prints = "a log line\n";
    bool flushed = false;
    system.on_call = [&flushed](const std::string& line) {
        if (line == "dup2 77 0")
            flushed = lseek(STDOUT_FILENO, 0, SEEK_CUR) == 11;
    };
    system.start();
    EXPECT_TRUE(flushed);
}

TEST_F(Child, TheDispositionOfSigpipeIsUnchangedAtEachCall) {
    const SigpipeHandler handler;
    Lines elsewise;
    system.on_call = [&](const std::string& line) {
        if (!handler.isInPlace())
            elsewise.push_back(line);
    };
    system.start();
    EXPECT_EQ(elsewise, Lines{});
    EXPECT_TRUE(handler.isInPlace());
}

TEST_F(Child, AFullQueueIsReportedOnceAndTheServiceRuns) {
    system.send_result = -1;
    EXPECT_EQ(system.start(), std::nullopt);
    EXPECT_EQ(system.print, "send message failed\n");
    EXPECT_EQ(system.calls.back(), "publish of the started object");
}

TEST_F(Child, AMissingQueueIsReportedOnceAndTheServiceRuns) {
    system.queue = -1;
    EXPECT_EQ(system.start(), std::nullopt);
    EXPECT_EQ(system.print, "send message failed\n");
    EXPECT_TRUE(system.sent.empty());
    EXPECT_EQ(system.calls.back(), "publish of the started object");
}

TEST_F(Child, AFailedSendIsPrintedBeforeTheServiceStarts) {
    system.send_result = -1;
    system.starts = false;
    system.start_prints = "start\n";
    system.start();
    EXPECT_EQ(system.print, "send message failed\nstart\n");
}

TEST_F(Child, WithoutDevNullTheChildKeepsItsDescriptorsAndRuns) {
    system.null_device = -1;
    system.start();
    EXPECT_EQ(std::count(system.calls.begin(), system.calls.end(), "dup2 -1 0"), 0);
    EXPECT_EQ(system.calls.back(), "publish of the started object");
}

TEST_F(Child, NeverRemovesTheQueue) {
    system.start();
    EXPECT_EQ(std::count(system.calls.begin(), system.calls.end(), "msgctl 7 remove"), 0);
}

}  // namespace
