//  The system as service control sees it, made up: nothing is forked, queued, slept, signalled or redirected.
//
//      parent:  forked > 0, messages come at the polls that incoming names
//      child:   forked == 0, sent texts are kept; the publish loop and exit leave by the ways below
//
//  The programs that use it are linked with --wrap for every call of fake_process.cpp. One fake lives at a time; without
//  one the calls are the real ones. The pid file is a real file in a folder of its own, and its lock is answered by the
//  test where it wants to.
//
//  Threads: for one thread.
#ifndef FAKE_PROCESS_H
#define FAKE_PROCESS_H

#include "daemon.h"

#include <csetjmp>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/types.h>

using Lines = std::vector<std::string>;

//  Leaves the service's endless loop.
struct LoopLeft {};

class FakeProcess {
public:
    //  What the kernel answers to a question about the lock: its type F_UNLCK or F_WRLCK, or -1 for a failed call.
    struct Lock {
        int type = F_UNLCK;
        pid_t pid = 0;
    };
    struct Message {
        std::string bytes;
    };

    FakeProcess();
    ~FakeProcess();
    FakeProcess(const FakeProcess&) = delete;
    FakeProcess& operator=(const FakeProcess&) = delete;

    //  Runs body with standard output caught. Returns what was printed.
    std::string output_of(const std::function<void()>& body);
    //  Runs the background start: its result, or nothing when the child left by exit or out of its loop.
    std::optional<int> start();
    //  The calls so far, forgotten afterwards.
    Lines take_calls();
    //  Puts text into the pid file.
    void write_pid_file(const std::string& text) const;

    CDaemon daemon;
    Lines calls;        // in order; polls and looks that find nothing leave no line
    std::string print;  // what start() printed

    pid_t forked = 4321;  // what fork returns
    int chdir_result = 0;
    int queue = 7;         // what msgget returns
    int null_device = 77;  // what opening /dev/null returns
    int send_result = 0;
    bool starts = true;                                 // what the service object's start returns
    std::string start_prints;                           // by the service object's start
    int turns = 1;                                      // of the publish loop
    std::map<int, Message> incoming;                    // by poll, from 1
    std::function<void(const std::string&)> on_call;    // told each line of calls
    std::function<Lock(int look)> lock;                 // told the number of the question, from 1
    std::function<bool(int opening)> pid_file_refused;  // told the number of the opening, from 1
    int exit_status = -1;
    int polls = 0;
    int seconds_slept = 0;
    long pool_blocks = 0;           // of the pool: taken and not given back
    long pool_requests = 0;         // of the pool
    long pool_left = 1 << 20;       // requests that the pool grants
    std::vector<std::string> sent;  // the bytes behind the type, of each message
    std::vector<long> sent_types;
    std::vector<std::pair<std::size_t, long>> receptions;  // size and type asked for, of each msgrcv
    Lines flags;                                           // of msgsnd and msgrcv

    //  For the wrapped calls.
    void note(std::string line);
    std::string folder;
    int looks = 0;
    int openings = 0;
    int pid_file = -1;
    void* run = nullptr;  // the service object that was started
    jmp_buf exit_point;
    bool exit_armed = false;
};

#endif
