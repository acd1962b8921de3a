//  Delivers the exit signal at randomly chosen instructions of the publish cycle. Among them are instructions inside
//  the allocator's locks, the C library's allocator and output, and calls of the client library. The process must take
//  all steps of its shutdown, so no time limit of the shutdown may end it earlier. After a failure at an instruction, a
//  second round at this instruction must succeed.
#include "daemon.h"
#include "exitsignal.h"
#include "olk_allocator.h"
#include "olk_prtlog.h"
#include "runcls.h"
#include "traced_child.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

//  Far above the time limits of the shutdown (exitsignal.h). A child that one of those limits ends has not taken all
//  steps, so its round fails.
constexpr int hang_seconds = 30;
constexpr std::size_t walked_instructions = 120'000;  // about ten cycles
constexpr unsigned max_occurrence = 6;

const char* const every_step = "disconnected 2, destroyed 2, exit functions 1 and 1";

//  Number of signals in the first test: ADDRPUBD_EXIT_ROUNDS in the environment (scripts/test --full sets 20,000),
//  otherwise 2,000. The second test sends a tenth of them.
int exitRounds() {
    const char* rounds = std::getenv("ADDRPUBD_EXIT_ROUNDS");
    return rounds == nullptr ? 2'000 : std::atoi(rounds);
}

//  A traced child exits after this number of passes. The addresses in the C library's heap depend on the parent's state
//  at the fork. So a child may never reach the instruction that another child reached. It must nevertheless end.
constexpr int max_passes = 100;

//  The steps of the shutdown that a child has taken, and its passes. The object is in memory shared with the parent.
struct Steps {
    int disconnected;
    int destroyed;
    int library_exits;
    int last_exits;
    unsigned passes;
};
Steps* steps = nullptr;

CRunCls* service = nullptr;
RdbReply reply = nullptr;
time_t second = 1'744'350'000;
unsigned listed = 0;

//  The simulated interface list. It starts at each of the three entries in turn, so it has one, two or three addresses.
ifaddrs entries[3];
sockaddr_in6 addresses[3];

//  The simulated client library allocates and frees memory of the C library, as real client libraries do.
void workAsALibrary() {
    const std::string text(static_cast<std::size_t>(100 + listed % 3 * 400), 'x');
    std::string copy = text + text;
    free(malloc(70'000 + copy.size()));
}

}  // namespace

extern "C" {

int rdb_create() {
    static int next = 0;
    return next++;
}
int rdb_setmessagenotify(int, RdbMessageNotify, void*) {
    return 0;
}
int rdb_connectex(int, const char*, const char*, const char*, int) {
    return 0;
}
int rdb_callmsg(int, const char* text, std::int32_t length, RdbReply callback, void* user) {
    workAsALibrary();
    reply = callback;
    callback(text, length, user);
    return 0;
}
int rdb_tagget(int, RdbTag* tag) {
    workAsALibrary();
    tag->tagclass = RDB_TAG_CLASS_USABLE;
    return 0;
}
int rdb_taginport(int, int, RdbTag*, std::int32_t*) {
    workAsALibrary();
    return 0;
}
int rdb_objputsnapshot(int, const RdbSnapshot*, int) {
    workAsALibrary();
    return 0;
}
int rdb_disconnect(int) {
    ++steps->disconnected;
    return 0;
}
int rdb_destory(int) {
    ++steps->destroyed;
    return 0;
}

time_t __wrap_time(time_t*);
time_t __wrap_time(time_t*) {
    return second += 601;
}
int __wrap_nanosleep(const timespec*, timespec*);
int __wrap_nanosleep(const timespec*, timespec*) {
    ++steps->passes;
    return 0;
}
//  Replaces the real list, which may change between two children. All children must execute the same instructions.
int __wrap_getifaddrs(ifaddrs** list);
int __wrap_getifaddrs(ifaddrs** list) {
    workAsALibrary();
    *list = &entries[++listed % 3];
    return 0;
}
void __wrap_freeifaddrs(ifaddrs* list);
void __wrap_freeifaddrs(ifaddrs*) {
    workAsALibrary();
}

}  // extern "C"

namespace {

void fillInterfaces() {
    for (unsigned i = 0; i < 3; ++i) {
        addresses[i].sin6_family = AF_INET6;
        inet_pton(AF_INET6, "2001:db8:1234:5678:9abc:def0:1234:5678", &addresses[i].sin6_addr);
        addresses[i].sin6_addr.s6_addr[0] = static_cast<std::uint8_t>(0x20 + i);
        entries[i].ifa_addr = reinterpret_cast<sockaddr*>(&addresses[i]);
        entries[i].ifa_next = i < 2 ? &entries[i + 1] : nullptr;
    }
}

//  Returns the file that contains the instruction at `address`, and the instruction's offset in this file. addr2line(1)
//  accepts both.
std::string nameOf(std::uintptr_t address) {
    Dl_info info = {};
    if (dladdr(reinterpret_cast<void*>(address), &info) == 0)
        return "at " + std::to_string(address);
    const std::uintptr_t offset = address - reinterpret_cast<std::uintptr_t>(info.dli_fbase);
    std::ostringstream text;
    text << "at " << info.dli_fname << " 0x" << std::hex << offset;
    return text.str();
}

//  An exit function of a library. It uses the C library's allocator. It is registered last, so it runs first.
void libraryExit() {
    for (int i = 0; i < 20; ++i)
        workAsALibrary();
    ++steps->library_exits;
}

class ExitAnywhere : public testing::Test {
protected:
    static void SetUpTestSuite() {
        steps = static_cast<Steps*>(
            mmap(nullptr, sizeof(Steps), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        fillInterfaces();
        service = new CRunCls;
        service->hostname = "host1";
        service->rdb_handle = rdb_create();
        service->dns_handle = rdb_create();
        service->rdb_connected = 1;
        service->dns_connected = 1;
        service->dnshttpsports.push_back(443);
        service->log = new olk::prtlog;
        service->log->open("stdout");
        //  Otherwise a child would read the time zone's file at its first line of the log. This may take longer than
        //  the time limit of a step, and the shutdown would then have to skip steps.
        tzset();
    }

    //  Prepares this process, a child, to run as a service that a signal can end.
    static void prepare() {
        dup2(open("/dev/null", O_RDWR), STDOUT_FILENO);
        std::atexit([] { ++steps->last_exits; });
        std::atexit(libraryExit);
        g_daemon.application = service;
        installExitSignals();
    }

    [[noreturn]] static void publish() {
        for (;;)
            service->publishOnce();
    }

    static void traced() {
        prepare();
        TracedChild::ready();
        for (int i = 0; i < max_passes; ++i)
            service->publishOnce();
        _exit(1);
    }

    static std::string takenSteps() {
        return "disconnected " + std::to_string(steps->disconnected) + ", destroyed " +
               std::to_string(steps->destroyed) + ", exit functions " + std::to_string(steps->library_exits) + " and " +
               std::to_string(steps->last_exits);
    }

    //  Returns whether the child holds the lock of a size class, by comparison with the free lock in this process. The
    //  lock of the object heap needs no check: after the start only size classes take it, while they hold their own.
    static bool holdsALock(const TracedChild& child) {
        const olk::allocator& allocator = *olk::get_olk_allocator();
        return std::any_of(allocator.classes, allocator.classes + allocator.classcount, [&](const auto* size_class) {
            const void* lock = &size_class->lock;
            int here = 0;
            std::memcpy(&here, lock, sizeof here);
            return child.wordAt(lock) != here;
        });
    }

    //  Sends the signal to a child that is about to execute the instruction at `address` for the nth time. Returns the
    //  steps that the child then takes, or its status if this is not 0, or that it does not end. Returns nothing if the
    //  child does not reach the instruction. Sets `in_lock` to whether the child held a lock of the allocator at the
    //  signal.
    static std::optional<std::string> endAt(std::uintptr_t address, unsigned nth, bool& in_lock) {
        *steps = Steps{};
        TracedChild child(traced);
        if (!child.runTo(address, nth))
            return std::nullopt;
        in_lock = holdsALock(child);
        const std::optional<int> status = child.goOnWith(SIGTERM, hang_seconds);
        return status == 0 ? takenSteps() : status ? "status " + std::to_string(*status) : "it does not end";
    }
};

TEST_F(ExitAnywhere, AllStepsAreTakenFromRandomInstructions) {
    using Place = std::pair<std::uintptr_t, unsigned>;
    const std::map<std::uintptr_t, unsigned> walked = TracedChild(traced).walk(walked_instructions);
    std::vector<Place> places(walked.begin(), walked.end());
    std::mt19937 random(20260);  // NOLINT(cert-msc51-cpp): a fixed seed repeats every run
    const int wanted = exitRounds();
    ASSERT_GT(wanted, 0);
    int in_locks = 0;
    int rounds = 0;
    int not_reached = 0;
    while (rounds < wanted) {
        const auto& [address, count] = places[random() % places.size()];
        const unsigned nth = 1 + static_cast<unsigned>(random()) % std::min(count, max_occurrence);
        bool in_lock = false;
        std::optional<std::string> taken = endAt(address, nth, in_lock);
        if (!taken) {
            ++not_reached;
            continue;
        }
        ++rounds;
        in_locks += in_lock;
        //  On a loaded machine a step may exceed its time limit while it holds a lock of the C library. The shutdown
        //  then skips steps. A fault of the service would also occur in a second round at the same place.
        if (taken != every_step)
            taken = endAt(address, nth, in_lock);
        ASSERT_EQ(taken, every_step) << nameOf(address) << ", time " << nth << (in_lock ? ", in a lock" : "");
    }
    std::printf("%d rounds at %zu instructions, %d inside a lock of the allocator; %d not reached\n", rounds,
                places.size(), in_locks, not_reached);
    EXPECT_GT(in_locks, 0);
    EXPECT_LT(not_reached, wanted / 10);
}

//  A second thread, like a thread of a client library, calls callbacks continuously. The signal arrives after a random
//  number of passes.
TEST_F(ExitAnywhere, AllStepsAreTakenWhileAnotherThreadRunsCallbacks) {
    std::mt19937 random(20261);  // NOLINT(cert-msc51-cpp): a fixed seed repeats every run
    const int wanted = exitRounds() / 10;
    ASSERT_GT(wanted, 0);
    for (int round = 0; round < wanted; ++round) {
        *steps = Steps{};
        const unsigned passes = 1 + static_cast<unsigned>(random()) % 40;
        const pid_t pid = fork();
        if (pid == 0) {
            prepare();
            std::thread([] {
                for (;;) {
                    onDnsReply("reply", 5, service);
                    onRdbEvent(RDB_EVENT_CONNECTED, 0, service);
                    workAsALibrary();
                }
            }).detach();
            publish();
        }
        while (const_cast<volatile unsigned&>(steps->passes) < passes)
            std::this_thread::yield();
        kill(pid, SIGTERM);
        int status = -1;
        waitpid(pid, &status, 0);
        ASSERT_EQ(status, 0) << "round " << round;
        ASSERT_EQ(takenSteps(), every_step) << "round " << round;
    }
}

}  // namespace
