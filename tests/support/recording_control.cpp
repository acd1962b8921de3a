//  The interface of the recording library for a test in another process. This file is part of the shared library only.
//  The test reads the calls from a file and controls the library through a socket.
//
//  RECORDING_RDB_LOG      file to which each call appends one JSON line before it returns
//  RECORDING_RDB_SCRIPT   file of commands, one per line, that are executed before the first rdb_create returns
//  RECORDING_RDB_CONTROL  path of a Unix stream socket on which a thread receives command lines; it executes each
//                         command, then answers "ok\n" or "no\n"
//
//  Commands, and the function of recording_rdb.h that each calls. INDEX is the number of a call of FUNCTION, from 0, or
//  * for every call.
//
//      result FUNCTION INDEX VALUE     script_result
//      class FUNCTION INDEX VALUE      script_tag_class
//      during FUNCTION INDEX EVENT     script_event
//      hold FUNCTION INDEX             script_hold
//      event HANDLE EVENT VALUE        fire_event
//      reply HEXBYTES                  fire_reply
//      held MILLISECONDS               wait_held
//      release                         release_held
//
//  The thread starts with the first rdb_create. If it started when the library is loaded, it would not exist in a
//  service that the program forks after loading the library.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "recording_rdb.h"

namespace {

using recording_rdb::Call;
using recording_rdb::Function;

int g_log = -1;

std::string hex(const std::string& bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string unhex(const std::string& text) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes += static_cast<char>(std::strtol(text.substr(i, 2).c_str(), nullptr, 16));
    }
    return bytes;
}

//  Texts and records that the service has passed are written as hexadecimal digits, so escapes are not needed. wall_ns
//  is the process's wall clock, in nanoseconds since the epoch.
void write_line(const Call& call) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::ostringstream line;
    line << "{\"call\":\"" << name_of(call.function) << "\",\"index\":" << call.index
         << ",\"wall_ns\":" << now.tv_sec * 1'000'000'000 + now.tv_nsec
         << ",\"main_thread\":" << (call.main_thread ? "true" : "false") << ",\"pid\":" << getpid()
         << ",\"handle\":" << call.handle << ",\"result\":" << call.result << ",\"callback\":" << call.callback
         << ",\"user\":" << call.user << ",\"url\":\"" << hex(call.url) << "\",\"account\":\"" << hex(call.account)
         << "\",\"password\":\"" << hex(call.password) << "\",\"reserved\":" << call.reserved << ",\"text\":\""
         << hex(call.text) << "\",\"length\":" << call.length
         << ",\"terminated\":" << (call.terminated ? "true" : "false") << ",\"record\":\"" << hex(call.record)
         << "\",\"mode\":" << call.mode << ",\"result_before\":" << call.result_before << ",\"count\":" << call.count
         << "}\n";
    const std::string bytes = line.str();
    static_cast<void>(!write(g_log, bytes.data(), bytes.size()));
}

bool function_named(const std::string& name, Function& function) {
    for (std::size_t i = 0; i < recording_rdb::function_count; ++i) {
        function = static_cast<Function>(i);
        if (name == name_of(function)) {
            return true;
        }
    }
    return false;
}

//  Executes the commands that apply to calls of one function: verb FUNCTION INDEX [VALUE].
bool obey_script(const std::string& verb, std::istringstream& words) {
    std::string function_name;
    std::string index_word;
    Function function{};
    words >> function_name >> index_word;
    if (!function_named(function_name, function)) {
        return false;
    }
    const std::size_t index =
        index_word == "*" ? recording_rdb::every_call : std::strtoul(index_word.c_str(), nullptr, 10);
    if (verb == "hold") {
        recording_rdb::script_hold(function, index);
        return true;
    }
    int value = 0;
    if (!(words >> value)) {
        return false;
    }
    if (verb == "result") {
        recording_rdb::script_result(function, index, value);
    } else if (verb == "class") {
        recording_rdb::script_tag_class(function, index, value);
    } else {
        recording_rdb::script_event(function, index, value);
    }
    return true;
}

bool obey(const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    words >> verb;
    if (verb == "result" || verb == "class" || verb == "during" || verb == "hold") {
        return obey_script(verb, words);
    }
    if (verb == "event") {
        int handle = 0;
        std::int32_t event = 0;
        std::int64_t value = 0;
        words >> handle >> event >> value;
        return recording_rdb::fire_event(handle, event, value);
    }
    if (verb == "reply") {
        std::string digits;
        words >> digits;
        return recording_rdb::fire_reply(unhex(digits));
    }
    if (verb == "held") {
        int milliseconds = 0;
        words >> milliseconds;
        return recording_rdb::wait_held(milliseconds);
    }
    if (verb == "release") {
        recording_rdb::release_held();
        return true;
    }
    return false;
}

void serve(int listener) {
    for (;;) {
        const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (peer < 0) {
            continue;
        }
        std::string line;
        char c = 0;
        while (read(peer, &c, 1) == 1) {
            if (c != '\n') {
                line += c;
                continue;
            }
            static_cast<void>(!write(peer, obey(line) ? "ok\n" : "no\n", 3));
            line.clear();
        }
        close(peer);
    }
}

void listen_on(const char* path) {
    unlink(path);  // an earlier run may have left its socket
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0 || bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 4) != 0) {
        return;
    }
    //  This thread releases held calls, so it must not handle signals: a signal may be meant for the thread that is
    //  held.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread(serve, listener).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void open_outside() {
    if (const char* path = std::getenv("RECORDING_RDB_LOG")) {
        g_log = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        recording_rdb::set_observer(write_line);
        recording_rdb::stop_storing();
    }
    if (const char* path = std::getenv("RECORDING_RDB_SCRIPT")) {
        std::ifstream script(path);
        for (std::string line; std::getline(script, line);) {
            obey(line);
        }
    }
    if (const char* path = std::getenv("RECORDING_RDB_CONTROL")) {
        listen_on(path);
    }
}

[[maybe_unused]] const bool g_hooked = [] {
    recording_rdb::set_first_create_hook(open_outside);
    return true;
}();

}  // namespace
