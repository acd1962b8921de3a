//  fleet KIND URL USER PASSWORD HOSTS FIRST: runs up to 16 hosts of a fleet in one process. Each host is a handle of
//  the open client library, and a thread that makes the calls of the service's publish cycle. KIND is rdb or dns.
//
//  Standard output, one line for each event; T is the monotonic clock in seconds:
//
//      connected HOST T     lost HOST T     published HOST T     done CALLS FAILED
//
//  Standard input has one order per line. The program prints "done" when all hosts have executed the order. It ends at
//  the end of its input.
//
//      publish NAMES SECONDS FRESH REFRESH
//                        each host publishes under NAMES names in turn for SECONDS; if SECONDS is 0, once under each
//                        name. FRESH is 1 if the address differs each time. REFRESH is 1 if, with redis, the host puts
//                        the value without looking up its tag, as the library does to refresh it.
//      repeat SECONDS    like follow; while connected, each host also publishes again every SECONDS of the wall clock,
//                        as the service does every 600 s
//      follow            from now on each host publishes as soon as it is connected, and prints "published" if that
//                        succeeds
//
//  The orders repeat and follow never end, so "done" is not printed for them.
//
//  Threads: main, one for each host, and those of the library. A callback of an event prints it and sets a flag.
#include "rdbapi.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Order {
    unsigned names = 1;
    unsigned seconds = 0;
    bool fresh = false;    // each value is new
    bool refresh = false;  // with redis: each put is made without looking up the tag first
};

double seconds() {
    return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

class Host {
public:
    Host(bool dns, unsigned number) : dns_(dns), number_(number) {}

    bool connect(const char* url, const char* user, const char* password) {
        handle_ = rdb_create();
        return handle_ >= 0 && rdb_setmessagenotify(handle_, onEvent, this) == 0 &&
               rdb_connectex(handle_, url, user, password, 0) == 0;
    }

    void waitConnected() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return connected_; });
    }

    //  Executes order. Adds its calls and failures to the two counters.
    void publish(const Order& order, std::atomic<unsigned>& calls, std::atomic<unsigned>& failed) {
        const auto until = Clock::now() + std::chrono::seconds(order.seconds);
        for (unsigned i = 0; order.seconds == 0 ? i < order.names : Clock::now() < until; ++i) {
            const bool good =
                publishName(number_ * order.names + i % order.names, order.fresh ? ++address_ : 0, order.refresh);
            ++calls;
            failed += good ? 0 : 1;
        }
    }

    //  Publishes each time the host connects, and then after each period while the host is connected. Never returns.
    //  Waits by the wall clock, because the monotonic clock may be faster (hurryshim.cpp).
    [[noreturn]] void follow(std::chrono::milliseconds period) {
        for (;;) {
            waitConnected();
            if (publishName(number_, 0, false))
                report("published");
            std::unique_lock lock(mutex_);
            changed_.wait_until(lock, std::chrono::system_clock::now() + period, [this] { return !connected_; });
        }
    }

private:
    static void onEvent(std::int32_t event, std::int64_t, void* user) {
        Host& host = *static_cast<Host*>(user);
        host.report(event == RDB_EVENT_CONNECTED ? "connected" : "lost");
        const std::lock_guard lock(host.mutex_);
        host.connected_ = event == RDB_EVENT_CONNECTED;
        host.changed_.notify_all();
    }

    static void onReply(const char* text, std::int32_t length, void* user) {
        Host& host = *static_cast<Host*>(user);
        const std::string_view reply(text, static_cast<std::size_t>(length));
        const std::lock_guard lock(host.mutex_);
        host.replied_ = true;
        host.good_ = reply.find("\"code\":0,") != std::string_view::npos;
        host.changed_.notify_all();
    }

    void report(const char* word) const { std::printf("%s %u %.3f\n", word, number_, seconds()); }

    bool publishName(unsigned name, unsigned address, bool refresh) {
        char name_text[80];
        char address_text[40];
        std::snprintf(name_text, sizeof name_text, "host%07u.example.test", name);
        std::snprintf(address_text, sizeof address_text, "2001:db8:%x:%x::%x", name >> 16, name & 0xffff,
                      address % 0xffff + 1);
        return dns_ ? sendUpdate(name_text, address_text) : put(name_text, address_text, refresh);
    }

    //  Works like the publish cycle: reads the tag, imports it if the reading fails, and puts the value. A refresh is
    //  the put alone. A refresh that the library makes also contains the definition of the tag.
    bool put(const char* name, const char* address, bool refresh) const {
        RdbTag tag{};
        std::strcpy(tag.name, name);
        if (!refresh && rdb_tagget(handle_, &tag) != 0) {
            tag.valuetype = RDB_VALUE_TYPE_TEXT;
            tag.tagclass = RDB_TAG_CLASS_USABLE;
            tag.importflag = 1;
            std::int32_t filled = 0;
            rdb_taginport(handle_, RDB_TAGINPORT_MODE, &tag, &filled);
        }
        RdbSnapshot record{};
        std::strcpy(record.name, name);
        std::strcpy(record.value, address);
        record.valuetype = RDB_VALUE_TYPE_TEXT;
        record.valuelen = static_cast<std::uint16_t>(std::strlen(address));
        return rdb_objputsnapshot(handle_, &record, 1) == 0;
    }

    bool sendUpdate(const char* name, const char* address) {
        const std::string text = std::string(R"({"request":"ws_dnsupdate","seqno":1,"item":{"name":")") + name +
                                 R"(","ipv4s":[],"ipv6s":[")" + address + R"("],"httpsports":[443]}})";
        std::unique_lock lock(mutex_);
        replied_ = false;
        lock.unlock();
        if (rdb_callmsg(handle_, text.data(), static_cast<std::int32_t>(text.size()), onReply, this) != 0)
            return false;
        lock.lock();
        changed_.wait(lock, [this] { return replied_; });
        return good_;
    }

    const bool dns_;
    const unsigned number_;
    int handle_ = -1;
    unsigned address_ = 0;
    std::mutex mutex_;  // guards the members below
    std::condition_variable changed_;
    bool connected_ = false;
    bool replied_ = false;
    bool good_ = false;
};

void execute(std::vector<Host*>& hosts, const Order& order) {
    std::atomic<unsigned> calls{0};
    std::atomic<unsigned> failed{0};
    std::vector<std::thread> threads;
    for (Host* host : hosts)
        threads.emplace_back([&, host] { host->publish(order, calls, failed); });
    for (std::thread& thread : threads)
        thread.join();
    std::printf("done %u %u\n", calls.load(), failed.load());
}

void follow(std::vector<Host*>& hosts, std::chrono::milliseconds period) {
    for (Host* host : hosts)
        std::thread([host, period] { host->follow(period); }).detach();
}

void readOrders(std::vector<Host*>& hosts) {
    char line[128];
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        Order order;
        unsigned fresh = 0;
        unsigned refresh = 0;
        double period = 0;
        if (std::sscanf(line, "publish %u %u %u %u", &order.names, &order.seconds, &fresh, &refresh) == 4) {
            order.fresh = fresh != 0;
            order.refresh = refresh != 0;
            execute(hosts, order);
        } else if (std::strcmp(line, "follow\n") == 0) {
            follow(hosts, std::chrono::hours(24));
        } else if (std::sscanf(line, "repeat %lf", &period) == 1) {
            follow(hosts, std::chrono::milliseconds(static_cast<int>(period * 1000)));
        }
    }
}

}  // namespace

int main(int count, char** words) {
    if (count != 7)
        return 2;
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    const auto first = static_cast<unsigned>(std::atoi(words[6]));
    std::vector<Host*> hosts;  // never freed, because callbacks and threads use the hosts until the program ends
    for (unsigned i = 0; i < static_cast<unsigned>(std::atoi(words[5])); ++i) {
        hosts.push_back(new Host(std::strcmp(words[1], "dns") == 0, first + i));
        if (!hosts.back()->connect(words[2], words[3], words[4]))
            return 1;
    }
    for (Host* host : hosts)
        host->waitConnected();
    readOrders(hosts);
    std::_Exit(0);
}
