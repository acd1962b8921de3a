//  A simulated system for tests of service control. Calls that would affect this process or other processes are only
//  recorded: fork, setsid, chdir, umask, dup2 and exit, and the calls for message queues, sleeps and signals.
//
//      parent:  `forked` is above 0; `incoming` contains the messages that the polls receive
//      child:   `forked` is 0; `sent` stores its messages; the start ends with LoopLeft or exit, or returns if chdir
//               fails
//
//  Test programs are linked with --wrap for each call in fake_process.cpp. The calls go to the object that was created
//  last. Without an object, and after that object is destroyed, the real calls are made. The pid file is a real file in
//  a separate folder; a test may supply the state of its lock.
//
//  Threads: one thread only.
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

//  Thrown to leave the endless publish loop of the service.
struct LoopLeft {};

class FakeProcess {
public:
    //  The kernel's answer to a query of the lock: its type is F_UNLCK or F_WRLCK, or -1 for a failed call.
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

    //  Runs body and returns its standard output.
    std::string output_of(const std::function<void()>& body);
    //  Runs the background start. Returns its result, or nothing if the child exited or left the publish loop.
    std::optional<int> start();
    //  Returns the calls since the last call of take_calls.
    Lines take_calls();
    //  Writes text into the pid file.
    void write_pid_file(const std::string& text) const;

    CDaemon daemon;
    //  The calls in order. Not included: requests for memory, calls on files other than the pid file and /dev/null,
    //  openings and queries of the pid file, the usual sleeps, and polls that got no message.
    Lines calls;
    std::string print;  // output of start()

    pid_t forked = 4321;  // result of fork
    int chdir_result = 0;
    int queue = 7;         // result of msgget
    int null_device = 77;  // result of opening /dev/null
    int send_result = 0;
    bool starts = true;                                 // result of the service object's start
    std::string start_prints;                           // output of the service object's start
    int turns = 1;                                      // passes of the publish loop before it is left
    std::map<int, Message> incoming;                    // messages by poll number, from 1
    std::function<void(const std::string&)> on_call;    // called with each line of `calls`
    std::function<Lock(int look)> lock;                 // called with the number of the query, from 1
    std::function<bool(int opening)> pid_file_refused;  // called with the number of the attempt to open, from 1
    int exit_status = -1;
    int polls = 0;
    int seconds_slept = 0;
    long pool_blocks = 0;           // blocks of the pool in use
    long pool_requests = 0;         // requests to the pool
    long pool_left = 1 << 20;       // requests that the pool still grants
    std::vector<std::string> sent;  // bytes after the type of each message
    std::vector<long> sent_types;
    std::vector<std::pair<std::size_t, long>> receptions;  // requested size and type of each msgrcv
    Lines flags;                                           // flags of msgsnd and msgrcv

    //  For the wrapped calls. Tests also use looks, pid_file and run.
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
