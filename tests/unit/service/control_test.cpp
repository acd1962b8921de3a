//  The commands stop and status: their output and signals. A test can set the kernel's answers to queries of the lock.
#include "fake_process.h"

#include <gtest/gtest.h>

#include <climits>
#include <fstream>

#include <sys/stat.h>

namespace {

constexpr char no_access[] = "Access Error! Please use root account!\n\n";
constexpr char not_run[] = "theservice not run!\n\n";
constexpr char stopped[] = "stop theservice... pid = 77\n\ntheservice stoped gracefully!\n\n";
constexpr FakeProcess::Lock unlocked = {F_UNLCK, 0};
constexpr FakeProcess::Lock held = {F_WRLCK, 77};
constexpr FakeProcess::Lock nameless = {F_WRLCK, -1};
constexpr FakeProcess::Lock unanswered = {-1, 0};

class Control : public testing::Test {
protected:
    std::string stop(int timeout_seconds = 300) {
        return system.output_of([=, this] { system.daemon.stop(timeout_seconds); });
    }
    std::string status() {
        return system.output_of([this] { system.daemon.status(); });
    }
    //  Sets the state of the lock at each query: these states in order, then the last state for all further queries.
    void lock(std::vector<FakeProcess::Lock> states) {
        system.lock = [states = std::move(states)](int look) {
            return states[std::min(static_cast<std::size_t>(look), states.size()) - 1];
        };
    }
    //  Returns the signals that were sent, in order. The test fails if there was another call, except closing the pid
    //  file.
    Lines signals() {
        Lines found;
        for (const std::string& line : system.take_calls())
            if (line != "close pid file")
                found.push_back(line);
        return found;
    }

    FakeProcess system;
};

TEST_F(Control, WithoutAPidFileNothingRunsAndAnEmptyOneIsCreated) {
    EXPECT_EQ(stop(), not_run);
    EXPECT_EQ(status(), not_run);
    struct stat file = {};
    ASSERT_EQ(stat(system.daemon.pid_path, &file), 0);
    EXPECT_EQ(file.st_size, 0);
    EXPECT_EQ(signals(), Lines{});
}

TEST_F(Control, AFileThatCannotBeOpenedIsReportedAsNoAccess) {
    system.pid_file_refused = [](int) { return true; };
    EXPECT_EQ(stop(), no_access);
    EXPECT_EQ(status(), no_access);
    EXPECT_EQ(signals(), Lines{});
}

TEST_F(Control, ALockThatCannotBeQueriedIsReportedAsNoAccess) {
    lock({unanswered});
    EXPECT_EQ(stop(), no_access);
    EXPECT_EQ(status(), no_access);
    EXPECT_EQ(signals(), Lines{});
}

TEST_F(Control, AFileWithoutALockMeansThatNothingRuns) {
    lock({unlocked});
    system.write_pid_file("77\n");
    EXPECT_EQ(stop(), not_run);
    EXPECT_EQ(status(), not_run);
    EXPECT_EQ(signals(), Lines{});
}

TEST_F(Control, StatusReportsTheHolderOfTheLock) {
    lock({held});
    EXPECT_EQ(status(), "theservice is runing!\n\n");
    EXPECT_EQ(signals(), Lines{});
}

TEST_F(Control, AHolderWithPid0MeansThatNothingRuns) {
    lock({{F_WRLCK, 0}});
    system.write_pid_file("77\n");
    EXPECT_EQ(stop(), not_run);
    EXPECT_EQ(status(), not_run);
    EXPECT_EQ(signals(), Lines{});
}

TEST_F(Control, TheTextIdentifiesAHolderWithoutAPid) {
    lock({nameless});
    system.write_pid_file("4242\n");
    EXPECT_EQ(status(), "theservice is runing!\n\n");
    lock({nameless, unlocked});
    system.looks = 0;
    EXPECT_EQ(stop(), "stop theservice... pid = 4242\n\ntheservice stoped gracefully!\n\n");
    EXPECT_EQ(signals(), Lines{"kill 4242 15"});
}

TEST_F(Control, TheTextIdentifiesAHolderWithAnotherNegativePid) {
    lock({{F_WRLCK, -7}, unlocked});
    system.write_pid_file("77\n");
    EXPECT_EQ(stop(), stopped);
}

TEST_F(Control, TheTextIsIgnoredIfTheHolderHasAPid) {
    lock({held, unlocked});
    system.write_pid_file("4242\n");
    EXPECT_EQ(stop(), stopped);
    EXPECT_EQ(signals(), Lines{"kill 77 15"});
}

TEST_F(Control, TheTextDeterminesTheResultIfTheHolderHasNoPid) {
    struct Row {
        const char* text;
        const char* stop;
        const char* status;
    };
    constexpr char running[] = "theservice is runing!\n\n";
    lock({nameless});
    for (const Row& row :
         {Row{"", no_access, no_access}, Row{"-1\n", no_access, no_access}, Row{"0\n", not_run, not_run},
          Row{"text", not_run, not_run}, Row{"-2\n", not_run, running}}) {
        SCOPED_TRACE(row.text);
        system.write_pid_file(row.text);
        EXPECT_EQ(stop(), row.stop);
        EXPECT_EQ(status(), row.status);
        EXPECT_EQ(signals(), Lines{});
    }
}

TEST_F(Control, ReadsTheFirst80BytesOfTheText) {
    lock({nameless, unlocked});
    system.write_pid_file(std::string(78, ' ') + "4242\n");
    EXPECT_EQ(stop(), "stop theservice... pid = 42\n\ntheservice stoped gracefully!\n\n");
}

TEST_F(Control, StopReturnsAtOnceIfTheLockIsFreeAfterSigterm) {
    lock({held, unlocked});
    EXPECT_EQ(stop(), stopped);
    EXPECT_EQ(signals(), Lines{"kill 77 15"});
    EXPECT_EQ(system.seconds_slept, 0);
}

TEST_F(Control, StopPrintsItsFirstLineBeforeTheSignal) {
    lock({held, unlocked});
    std::string before;
    const std::string all = system.output_of([&] {
        system.on_call = [&before](const std::string& line) {
            if (!line.starts_with("kill"))
                return;
            std::fflush(stdout);
            before.resize(static_cast<std::size_t>(lseek(STDOUT_FILENO, 0, SEEK_CUR)));
        };
        system.daemon.stop(300);
    });
    EXPECT_EQ(all.substr(0, before.size()), "stop theservice... pid = 77\n\n");
}

TEST_F(Control, StopChecksTheLockOnceASecond) {
    lock({held, held, held, held, unlocked});
    EXPECT_EQ(stop(), stopped);
    EXPECT_EQ(system.seconds_slept, 3);
    EXPECT_EQ(signals(), Lines{"kill 77 15"});
}

TEST_F(Control, StopKillsAfter300SecondsWithoutALastCheck) {
    lock({held});
    EXPECT_EQ(stop(), "stop theservice... pid = 77\n\n300 second Timeout,theservice be killed!\n\n");
    EXPECT_EQ(system.seconds_slept, 300);
    EXPECT_EQ(system.looks, 301);
    EXPECT_EQ(signals(), (Lines{"kill 77 15", "kill 77 9"}));
}

TEST_F(Control, StopSucceedsIfTheLockIsReleasedInTheLastSecond) {
    std::vector<FakeProcess::Lock> states(300, held);
    states.push_back(unlocked);
    lock(states);
    EXPECT_EQ(stop(), stopped);
    EXPECT_EQ(system.seconds_slept, 299);
}

TEST_F(Control, TheCallerSetsTheTimeLimit) {
    lock({held});
    EXPECT_EQ(stop(1), "stop theservice... pid = 77\n\n1 second Timeout,theservice be killed!\n\n");
    EXPECT_EQ(system.seconds_slept, 1);
    EXPECT_EQ(signals(), (Lines{"kill 77 15", "kill 77 9"}));
}

TEST_F(Control, ATimeLimitBelow1KillsAtOnce) {
    lock({held});
    for (const int timeout : {0, -1, INT_MIN}) {
        system.looks = 0;
        EXPECT_EQ(stop(timeout), "stop theservice... pid = 77\n\n" + std::to_string(timeout) +
                                     " second Timeout,theservice be killed!\n\n");
        EXPECT_EQ(system.looks, 1);
        EXPECT_EQ(signals(), (Lines{"kill 77 15", "kill 77 9"}));
    }
    EXPECT_EQ(system.seconds_slept, 0);
}

TEST_F(Control, WaitsForAnyHolderButKillsOnlyTheFirst) {
    lock({held, held, {F_WRLCK, 88}});
    EXPECT_EQ(stop(5), "stop theservice... pid = 77\n\n5 second Timeout,theservice be killed!\n\n");
    EXPECT_EQ(signals(), (Lines{"kill 77 15", "kill 77 9"}));
}

TEST_F(Control, AHolderWithPid1IsStoppedLikeAnyOther) {
    lock({{F_WRLCK, 1}, {F_WRLCK, 1}, unlocked});
    EXPECT_EQ(stop(), "stop theservice... pid = 1\n\ntheservice stoped gracefully!\n\n");
    EXPECT_EQ(system.seconds_slept, 1);
    EXPECT_EQ(signals(), Lines{"kill 1 15"});
}

TEST_F(Control, AFileThatCannotBeOpenedAgainEndsTheWait) {
    lock({held});
    system.pid_file_refused = [](int opening) { return opening == 4; };
    EXPECT_EQ(stop(), stopped);
    EXPECT_EQ(system.seconds_slept, 2);
}

TEST_F(Control, ALockThatCannotBeQueriedAgainEndsTheWait) {
    lock({held, held, unanswered});
    EXPECT_EQ(stop(), stopped);
    EXPECT_EQ(system.seconds_slept, 1);
}

TEST_F(Control, AHolderWithPid0EndsTheWait) {
    lock({held, held, {F_WRLCK, 0}});
    EXPECT_EQ(stop(), stopped);
    EXPECT_EQ(system.seconds_slept, 1);
}

TEST_F(Control, DuringTheWaitTheTextIdentifiesAHolderWithoutAPid) {
    lock({held, nameless});
    for (const char* text : {"", "-1\n", "0\n", "text", "-2\n"}) {
        system.write_pid_file(text);
        system.looks = 0;
        EXPECT_EQ(stop(), stopped) << text;
        EXPECT_EQ(system.seconds_slept, 0) << text;
    }
    system.write_pid_file("88\n");
    system.looks = 0;
    EXPECT_EQ(stop(4), "stop theservice... pid = 77\n\n4 second Timeout,theservice be killed!\n\n");
}

TEST_F(Control, EveryCheckClosesTheFile) {
    lock({held, held, held, unlocked});
    stop();
    EXPECT_EQ(system.take_calls(),
              (Lines{"close pid file", "kill 77 15", "close pid file", "close pid file", "close pid file"}));
    lock({unanswered});
    stop();
    EXPECT_EQ(system.take_calls(), Lines{"close pid file"});
}

TEST_F(Control, DoesNotSetThePidFileOfTheDescriptor) {
    lock({held, unlocked});
    stop();
    status();
    EXPECT_EQ(system.daemon.pid_fd, -1);
    EXPECT_STREQ(system.daemon.pid_work_path, "");
}

}  // namespace
