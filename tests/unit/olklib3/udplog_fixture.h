//  A UDP log whose sockets record their calls, and a resolver that knows the example names.
#ifndef UDPLOG_FIXTURE_H
#define UDPLOG_FIXTURE_H

#include "fake_resolver.h"
#include "fake_sockets.h"
#include "olk_udplog.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

#include <arpa/inet.h>

using Calls = std::vector<std::string>;

class UdpLog : public testing::Test {
protected:
    UdpLog() { add_example_names(resolver); }

    //  Returns the destination of records, such as "192.0.2.10 5140" or "2001:db8::5 5140"; "nowhere" if there is none.
    std::string destination() const { return destination_of(log.addr, log.addrlen); }
    static std::string destination_of(const void* bytes, std::size_t length) {
        char text[INET6_ADDRSTRLEN] = "";
        sockaddr_storage address = {};
        std::memcpy(&address, bytes, length);
        if (length == sizeof(sockaddr_in) && address.ss_family == AF_INET) {
            const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(address);
            inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof text);
            return std::string(text) + " " + std::to_string(ntohs(ipv4.sin_port));
        }
        if (length == sizeof(sockaddr_in6) && address.ss_family == AF_INET6) {
            const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(address);
            inet_ntop(AF_INET6, &ipv6.sin6_addr, text, sizeof text);
            return std::string(text) + " " + std::to_string(ntohs(ipv6.sin6_port));
        }
        return length == 0 ? "nowhere" : "neither family's address";
    }

    //  Returns the level of a new log after opening a url with this query.
    static int level_after(const std::string& query) {
        olk::udplog fresh;
        EXPECT_EQ(fresh.open(("udp://192.0.2.10:5140/netsvc?" + query).c_str()), 0);
        return fresh.getlevel();
    }

    __attribute__((format(printf, 4, 5))) int push(int level, const char* tag, const char* format, ...) {
        va_list args;
        va_start(args, format);
        const int result = log.push(level, tag, format, args);
        va_end(args);
        return result;
    }

    static constexpr const char* usual = "udp://192.0.2.10:5140/netsvc";

    FakeResolver resolver;
    FakeSockets sockets;
    olk::udplog log;
};

#endif
