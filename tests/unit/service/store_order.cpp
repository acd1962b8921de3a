//  Shows that a connect event clears its mark, which is the time of the last put or request, before it sets the
//  connected flag. This is tested in the machine code of this build.
//
//      | read-only page                    | writable page            |
//      |  ... connected flag ...           | mark ...                 |
//        service object, placed across the boundary
//
//  The store to the flag causes a page fault. The fault handler records the mark at that moment and makes the page
//  writable; then the store is repeated. The program prints one line for each callback. It returns 0 if every mark was
//  cleared first.
#include "exitsignal.h"
#include "runcls.h"

#include <cstdio>
#include <cstdlib>
#include <new>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

//  This program does not end like the service, so callbacks need not be counted.
CallbackStep::CallbackStep() noexcept : counted(false) {}
CallbackStep::~CallbackStep() {}

namespace {

constexpr std::int64_t uncleared = 42;

class SilentLog final : public olk::ilog {
public:
    int open(const char*) override { return 0; }
    int add(int, const char*, ...) override { return 0; }
    int append(int, const char*, ...) override { return 0; }
    int getlevel() override { return 0; }
    void setlevel(int) override {}
    void runtime() override {}
    void release() override {}
};

//  A callback and the two members that it writes.
struct Row {
    const char* name;
    void (*callback)(std::int32_t, std::int64_t, void*);
    std::uint32_t& (*connected)(CRunCls&);
    std::int64_t& (*mark)(CRunCls&);
};

const Row rows[] = {
    {"onRdbEvent", onRdbEvent, [](CRunCls& run) -> std::uint32_t& { return run.rdb_connected; },
     [](CRunCls& run) -> std::int64_t& { return run.snapshot.time; }},
    {"onDnsEvent", onDnsEvent, [](CRunCls& run) -> std::uint32_t& { return run.dns_connected; },
     [](CRunCls& run) -> std::int64_t& { return run.last_sent_time; }},
};

std::size_t page_size = 0;
char* pages = nullptr;  // the two pages
const void* expected_fault = nullptr;
const volatile std::int64_t* watched_mark = nullptr;
volatile std::int64_t mark_at_fault = 0;
volatile sig_atomic_t faults = 0;

void onFault(int, siginfo_t* info, void*) {
    if (info->si_addr != expected_fault)
        _exit(3);
    faults = faults + 1;
    mark_at_fault = *watched_mark;
    mprotect(pages, page_size, PROT_READ | PROT_WRITE);
}

//  Creates a service object whose mark is at the start of the second page.
CRunCls& placeAcrossBorder(const Row& row) {
    alignas(CRunCls) static char sample[sizeof(CRunCls)];
    auto* first = ::new (sample) CRunCls;
    const auto offset = reinterpret_cast<char*>(&row.mark(*first)) - sample;
    return *::new (pages + page_size - offset) CRunCls;
}

bool clearsMarkFirst(const Row& row) {
    static SilentLog log;
    CRunCls& run = placeAcrossBorder(row);
    run.log = &log;
    row.mark(run) = uncleared;
    watched_mark = &row.mark(run);
    expected_fault = &row.connected(run);
    faults = 0;
    mprotect(pages, page_size, PROT_READ);
    row.callback(RDB_EVENT_CONNECTED, 0, &run);
    const bool stored = faults == 1 && row.connected(run) == 1 && row.mark(run) == 0;
    const bool first = stored && mark_at_fault == 0;
    std::printf("%s: %s\n", row.name, first ? "mark, then flag" : stored ? "FLAG BEFORE MARK" : "NOT STORED ONCE");
    return first;
}

}  // namespace

int main() {
    page_size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* mapping = mmap(nullptr, 2 * page_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        return 2;
    pages = static_cast<char*>(mapping);
    struct sigaction action = {};
    action.sa_sigaction = onFault;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, nullptr);
    bool all = true;
    for (const Row& row : rows)
        all = clearsMarkFirst(row) && all;
    return all ? 0 : 1;
}
