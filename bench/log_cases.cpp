//  One record of the console log and of the UDP log, compared with printf or sendto of the same line, and with spdlog's
//  sinks. spdlog's stdout sink flushes after each record, as push does; add does not flush.
#include "cases.h"
#include "olk_prtlog.h"
#include "olk_udplog.h"

#ifdef WITH_SPDLOG
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/udp_sink.h>
#include <spdlog/spdlog.h>
#endif

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr char target[] = "sqlite:///var/lib/addrpubd/rdb.db";

//  Standard output goes to /dev/null during the lifetime of an object of this class.
class muted_output {
public:
    muted_output() {
        std::fflush(stdout);
        before_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        close(null);
        std::setvbuf(stdout, nullptr, _IOFBF, 0);
    }
    ~muted_output() {
        std::fflush(stdout);
        dup2(before_, STDOUT_FILENO);
        close(before_);
    }
    muted_output(const muted_output&) = delete;
    muted_output& operator=(const muted_output&) = delete;

private:
    int before_;
};

void by_add(std::size_t times) {
    olk::prtlog log;
    log.open("stdout");
    for (; times-- > 0;)
        log.add(30, "rdburl: %s", target);
}

__attribute__((format(printf, 2, 3))) void push(olk::ilog& log, const char* format, ...) {
    va_list args;
    va_start(args, format);
    log.push(30, nullptr, format, args);
    va_end(args);
}

void by_push(std::size_t times) {
    olk::prtlog log;
    log.open("stdout");
    for (; times-- > 0;)
        push(log, "rdburl: %s", target);
}

void by_printf(std::size_t times) {
    for (; times-- > 0;) {
        timeval now{};
        gettimeofday(&now, nullptr);
        tm local{};
        localtime_r(&now.tv_sec, &local);
        std::printf("[%d/%d/%d %02d:%02d:%02d.%06d] [inf] rdburl: %s\n", local.tm_year + 1900, local.tm_mon + 1,
                    local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(now.tv_usec), target);
    }
}

#ifdef WITH_SPDLOG
void by_stdout_sink(std::size_t times) {
    spdlog::logger log("bench", std::make_shared<spdlog::sinks::stdout_sink_st>());
    log.set_pattern("[%Y/%m/%d %H:%M:%S.%f] [%l] %v");
    for (; times-- > 0;)
        log.info("rdburl: {}", target);
}
#endif

constexpr std::size_t many_records = 20'000;  // hides the cost of redirecting standard output

void add_console(const std::string& who, const work& run) {
    add("console/" + who, many_records, [run](std::size_t times) {
        const muted_output muted;
        run(times);
    });
}

void filtered_console(std::size_t times) {
    olk::prtlog log(30);
    log.open("stdout");
    for (; times-- > 0;)
        log.add(40, "rdburl: %s", target);
}

//  A UDP socket on a loopback port, from which nothing is read. The kernel drops each datagram that does not fit into
//  the buffer of the socket. This is the same for all senders that are compared.
class deaf_receiver {
public:
    deaf_receiver() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
            getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            std::abort();
    }
    ~deaf_receiver() { close(fd_); }
    deaf_receiver(const deaf_receiver&) = delete;
    deaf_receiver& operator=(const deaf_receiver&) = delete;

    std::uint16_t port() const { return ntohs(address.sin_port); }

    sockaddr_in address = {};

private:
    int fd_;
};

const deaf_receiver& receiver() {
    static const deaf_receiver one;
    return one;
}

olk::udplog& open_udplog() {
    static olk::udplog log;
    if (log.sock == -1)
        log.open(("udp://127.0.0.1:" + std::to_string(receiver().port()) + "/netsvc").c_str());
    return log;
}

void udp_by_add(std::size_t times) {
    olk::udplog& log = open_udplog();
    for (; times-- > 0;)
        log.add(30, "rdburl: %s", target);
}

void udp_filtered(std::size_t times) {
    olk::ilog* log = &open_udplog();
    forget(log);
    for (; times-- > 0;)
        log->add(40, "rdburl: %s", target);
}

void udp_by_sendto(std::size_t times) {
    static const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const std::string record = std::string("{\"order\":\"wlog\",\"level\":30,\"cabin\":\"netsvc\"}\nrdburl: ") + target;
    const auto* to = reinterpret_cast<const sockaddr*>(&receiver().address);
    for (; times-- > 0;)
        keep(sendto(fd, record.data(), record.size(), MSG_DONTWAIT, to, sizeof(sockaddr_in)));
}

#ifdef WITH_SPDLOG
void udp_by_spdlog(std::size_t times) {
    static const auto log = [] {
        const spdlog::sinks::udp_sink_config config("127.0.0.1", receiver().port());
        auto made = std::make_unique<spdlog::logger>("udp", std::make_shared<spdlog::sinks::udp_sink_st>(config));
        made->set_formatter(std::make_unique<spdlog::pattern_formatter>(
            "{\"order\":\"wlog\",\"level\":30,\"cabin\":\"netsvc\"}\n%v", spdlog::pattern_time_type::local, ""));
        return made;
    }();
    for (; times-- > 0;)
        log->info("rdburl: {}", target);
}
#endif

const bool added = [] {
    add_console("olk", by_add);
    add_console("olk_push", by_push);
    add_console("printf", by_printf);
    add("filtered/olk/console", 1000, filtered_console);
    add("udp/olk", 100, udp_by_add);
    add("udp/sendto", 100, udp_by_sendto);
    add("filtered/olk/udp", 1000, udp_filtered);
#ifdef WITH_SPDLOG
    add_console("spdlog", by_stdout_sink);
    add("udp/spdlog", 100, udp_by_spdlog);
#endif
    return true;
}();

}  // namespace

}  // namespace bench
