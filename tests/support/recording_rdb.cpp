#include "recording_rdb.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace recording_rdb {
namespace {

struct Script {
    std::optional<int> result;
    std::optional<int> tag_class;
    std::optional<std::int32_t> event;
    bool hold = false;
};

struct Receiver {
    RdbMessageNotify callback = nullptr;
    void* user = nullptr;
};

struct State {
    std::vector<Call> calls;
    std::array<std::size_t, function_count> made{};
    std::map<std::pair<Function, std::size_t>, Script> scripts;
    std::map<int, Receiver> receivers;
    RdbReply reply = nullptr;  // of the last request that was not refused
    void* reply_user = nullptr;
    bool storing = true;
    std::function<void(const Call&)> observer;
};

//  Never destroyed, because exit handlers of the program may still call the library.
State& state() {
    static State* const the_state = new State;
    return *the_state;
}

//  Holds the lock and blocks all signals. So a signal handler never interrupts the thread that holds the lock.
class Guard {
public:
    Guard() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
        mutex().lock();
    }
    ~Guard() {
        mutex().unlock();
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    static std::mutex& mutex() {
        static std::mutex* const the_mutex = new std::mutex;
        return *the_mutex;
    }
    sigset_t before_;
};

//  The descriptor held_signal() is readable from the moment at which a call is held until wait_held returns. The
//  descriptor release_signal() is readable from release_held until the held call continues.
int held_signal() {
    static const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return fd;
}
int release_signal() {
    static const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return fd;
}

void raise(int fd) {
    const std::uint64_t one = 1;
    static_cast<void>(!write(fd, &one, sizeof one));
}

void clear(int fd) {
    std::uint64_t value = 0;
    static_cast<void>(!read(fd, &value, sizeof value));
}

Script script_for(Function function, std::size_t index) {
    const State& s = state();
    Script merged;
    for (const std::size_t key : {every_call, index}) {
        const auto found = s.scripts.find({function, key});
        if (found == s.scripts.end()) {
            continue;
        }
        const Script& script = found->second;
        merged.result = script.result ? script.result : merged.result;
        merged.tag_class = script.tag_class ? script.tag_class : merged.tag_class;
        merged.event = script.event ? script.event : merged.event;
        merged.hold = script.hold || merged.hold;
    }
    return merged;
}

template <typename T>
std::uintptr_t address_of(T* pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer);
}

std::string text_of(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}

std::string bytes_of(const void* start, std::size_t size) {
    return start == nullptr ? std::string() : std::string(static_cast<const char*>(start), size);
}

//  Sets the number and the result of the call, applies the scripted tag class to the record, and stores the call. Then
//  it executes the scripted actions, without holding the lock.
int finish(Call& call, RdbTag* tag, std::optional<int> usual_class) {
    Script script;
    {
        const Guard guard;
        State& s = state();
        std::size_t& made = s.made[static_cast<std::size_t>(call.function)];
        call.order = s.calls.size();
        call.index = made++;
        call.main_thread = gettid() == getpid();
        script = script_for(call.function, call.index);
        call.result = script.result.value_or(call.function == Function::create ? static_cast<int>(call.index) : 0);
        if (call.function == Function::create) {
            call.handle = call.result;
        }
        const int tag_class = script.tag_class.value_or(usual_class.value_or(-1));
        if (tag != nullptr) {
            if (tag_class >= 0) {
                tag->tagclass = static_cast<std::uint8_t>(tag_class);
            }
        }
        if (call.function == Function::callmsg && call.result == 0) {
            s.reply = std::bit_cast<RdbReply>(call.callback);
            s.reply_user = std::bit_cast<void*>(call.user);
        }
        if (s.storing) {
            s.calls.push_back(call);
        }
        if (s.observer) {
            s.observer(call);
        }
    }
    if (script.event) {
        fire_event(call.handle, *script.event);
    }
    if (script.hold) {
        raise(held_signal());
        pollfd released{release_signal(), POLLIN, 0};
        while (poll(&released, 1, -1) != 1) {
        }
        clear(release_signal());
    }
    return call.result;
}

std::atomic<void (*)()> g_first_create_hook{nullptr};

Script& script_at(Function function, std::size_t index) {
    return state().scripts[{function, index}];
}

}  // namespace

const char* name_of(Function function) {
    static constexpr std::array<const char*, function_count> names = {
        "rdb_create",    "rdb_setmessagenotify", "rdb_connectex",  "rdb_callmsg", "rdb_tagget",
        "rdb_taginport", "rdb_objputsnapshot",   "rdb_disconnect", "rdb_destory",
    };
    return names[static_cast<std::size_t>(function)];
}

void reset() {
    const Guard guard;
    state() = State{};
    clear(held_signal());
    clear(release_signal());
}

void script_result(Function function, std::size_t index, int result) {
    const Guard guard;
    script_at(function, index).result = result;
}

void script_tag_class(Function function, std::size_t index, int tag_class) {
    const Guard guard;
    script_at(function, index).tag_class = tag_class;
}

void script_event(Function function, std::size_t index, std::int32_t event) {
    const Guard guard;
    script_at(function, index).event = event;
}

void script_hold(Function function, std::size_t index) {
    const Guard guard;
    script_at(function, index).hold = true;
}

bool wait_held(int milliseconds) {
    pollfd held{held_signal(), POLLIN, 0};
    if (poll(&held, 1, milliseconds) != 1) {
        return false;
    }
    clear(held_signal());
    return true;
}

void release_held() {
    raise(release_signal());
}

std::vector<Call> calls() {
    const Guard guard;
    return state().calls;
}

std::vector<Call> calls_of(Function function) {
    const Guard guard;
    std::vector<Call> found;
    for (const Call& call : state().calls) {
        if (call.function == function) {
            found.push_back(call);
        }
    }
    return found;
}

bool fire_event(int handle, std::int32_t event, std::int64_t value) {
    Receiver receiver;
    {
        const Guard guard;
        const auto found = state().receivers.find(handle);
        if (found != state().receivers.end()) {
            receiver = found->second;
        }
    }
    if (receiver.callback == nullptr) {
        return false;
    }
    receiver.callback(event, value, receiver.user);
    return true;
}

bool fire_event_from_thread(int handle, std::int32_t event, std::int64_t value) {
    bool fired = false;
    std::thread([&] { fired = fire_event(handle, event, value); }).join();
    return fired;
}

bool fire_reply(std::string_view text) {
    RdbReply callback = nullptr;
    void* user = nullptr;
    {
        const Guard guard;
        callback = state().reply;
        user = state().reply_user;
    }
    if (callback == nullptr) {
        return false;
    }
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t readable = (text.size() / page + 1) * page;
    void* const map = mmap(nullptr, readable + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) {
        return false;
    }
    char* const guard_page = static_cast<char*>(map) + readable;
    mprotect(guard_page, page, PROT_NONE);
    char* const start = guard_page - text.size();
    std::memcpy(start, text.data(), text.size());
    callback(start, static_cast<std::int32_t>(text.size()), user);
    munmap(map, readable + page);
    return true;
}

bool fire_reply_from_thread(std::string_view text) {
    bool fired = false;
    std::thread([&] { fired = fire_reply(text); }).join();
    return fired;
}

void set_observer(std::function<void(const Call&)> observer) {
    const Guard guard;
    state().observer = std::move(observer);
}

void stop_storing() {
    const Guard guard;
    state().storing = false;
}

void set_first_create_hook(void (*hook)()) {
    g_first_create_hook = hook;
}

void run_first_create_hook() {
    if (const auto hook = g_first_create_hook.exchange(nullptr)) {
        hook();
    }
}

}  // namespace recording_rdb

using namespace recording_rdb;

int rdb_create() {
    run_first_create_hook();
    Call call;
    call.function = Function::create;
    return finish(call, nullptr, {});
}

int rdb_setmessagenotify(int handle, RdbMessageNotify callback, void* user) {
    {
        const Guard guard;
        state().receivers[handle] = {callback, user};
    }
    Call call;
    call.function = Function::setmessagenotify;
    call.handle = handle;
    call.callback = address_of(callback);
    call.user = address_of(user);
    return finish(call, nullptr, {});
}

int rdb_connectex(int handle, const char* url, const char* user, const char* password, int reserved) {
    Call call;
    call.function = Function::connectex;
    call.handle = handle;
    call.url = text_of(url);
    call.account = text_of(user);
    call.password = text_of(password);
    call.reserved = reserved;
    return finish(call, nullptr, {});
}

int rdb_callmsg(int handle, const char* text, std::int32_t length, RdbReply callback, void* user) {
    Call call;
    call.function = Function::callmsg;
    call.handle = handle;
    call.length = length;
    call.text = length > 0 ? bytes_of(text, static_cast<std::size_t>(length)) : std::string();
    call.terminated = text != nullptr && length >= 0 && text[length] == '\0';
    call.callback = address_of(callback);
    call.user = address_of(user);
    return finish(call, nullptr, {});
}

int rdb_tagget(int handle, RdbTag* tag) {
    Call call;
    call.function = Function::tagget;
    call.handle = handle;
    call.record = bytes_of(tag, sizeof *tag);
    if (tag != nullptr) {
        RdbTag filled;
        std::memset(&filled, 0xa5, sizeof filled);
        std::memcpy(filled.name, tag->name, sizeof filled.name);
        *tag = filled;
    }
    return finish(call, tag, RDB_TAG_CLASS_USABLE);
}

int rdb_taginport(int handle, int mode, RdbTag* tag, std::int32_t* result) {
    Call call;
    call.function = Function::taginport;
    call.handle = handle;
    call.mode = mode;
    call.record = bytes_of(tag, sizeof *tag);
    call.result_before = result == nullptr ? -1 : *result;
    return finish(call, tag, {});
}

int rdb_objputsnapshot(int handle, const RdbSnapshot* records, int count) {
    Call call;
    call.function = Function::objputsnapshot;
    call.handle = handle;
    call.count = count;
    call.record = count > 0 ? bytes_of(records, sizeof *records * static_cast<std::size_t>(count)) : std::string();
    return finish(call, nullptr, {});
}

int rdb_disconnect(int handle) {
    Call call;
    call.function = Function::disconnect;
    call.handle = handle;
    return finish(call, nullptr, {});
}

int rdb_destory(int handle) {
    {
        const Guard guard;
        state().receivers.erase(handle);
    }
    Call call;
    call.function = Function::destory;
    call.handle = handle;
    return finish(call, nullptr, {});
}
