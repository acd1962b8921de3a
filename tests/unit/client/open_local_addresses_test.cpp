#include "net/local_addresses.h"

#include "open_support.h"

#include <arpa/inet.h>
#include <cstdarg>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

std::string tablePath;  // replaces the kernel's table
int openError = 0;
int readError = 0;

}  // namespace

extern "C" {

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
    if (std::string(path) == "/proc/self/net/if_inet6") {
        errno = openError;
        return openError != 0 ? -1 : __real_open(tablePath.c_str(), flags);
    }
    return __real_open(path, flags, 0600);
}

ssize_t __real_read(int descriptor, void* bytes, size_t size);
ssize_t __wrap_read(int descriptor, void* bytes, size_t size);
ssize_t __wrap_read(int descriptor, void* bytes, size_t size) {
    if (readError == 0)
        return __real_read(descriptor, bytes, size);
    errno = readError;
    readError = errno == EINTR ? 0 : readError;
    return -1;
}
}

namespace {

using namespace rdbopen;

Ipv6Address address(const char* text) {
    Ipv6Address binary{};
    EXPECT_EQ(inet_pton(AF_INET6, text, binary.data()), 1);
    return binary;
}

constexpr const char* table = "00000000000000000000000000000001 01 80 10 80       lo\n"
                              "20010db8000000000000000000000001 02 40 00 80     eth0\n"
                              "20010db8000000000000000000000002 02 40 00 01     eth0\n"
                              "20010db8000000000000000000000003 1f 40 00 a0   wlan12\n";

TEST(HostAddresses, FlagsAreThoseOfTheKernelsTable) {
    const LocalAddresses found = parseLocalAddresses(table);
    EXPECT_EQ(found.size(), 4U);
    EXPECT_EQ(found.at(address("2001:db8::1")).flags & (flagTemporary | flagDeprecated), 0U);
    EXPECT_EQ(found.at(address("2001:db8::2")).flags & (flagTemporary | flagDeprecated), flagTemporary);
    EXPECT_EQ(found.at(address("2001:db8::3")).flags & (flagTemporary | flagDeprecated), flagDeprecated);
}

TEST(HostAddresses, AnAddressOnTwoInterfacesHasTheFlagsCommonToBoth) {
    const LocalAddresses found = parseLocalAddresses("20010db8000000000000000000000001 02 40 00 21 eth0\n"
                                                     "20010db8000000000000000000000001 03 40 00 20 eth1\n");
    EXPECT_EQ(found.at(address("2001:db8::1")).flags, flagDeprecated);
    EXPECT_EQ(found.at(address("2001:db8::1")).interfaces, (std::vector<std::string>{"eth0", "eth1"}));
}

TEST(HostAddresses, InvalidLinesAreSkipped) {
    for (const char* const line :
         {"", "\n\n", "2001:db8::1 02 40 00 80 eth0", "20010db800000000000000000000000g 02 40 00 80 e",
          "20010db8000000000000000000000001 02 40 00", "20010db8000000000000000000000001 02 40 00 80",
          "20010db8000000000000000000000001 02 40 00 8x e"})
        EXPECT_TRUE(parseLocalAddresses(line).empty()) << line;
}

TEST(HostAddresses, ALongTableIsReadCompletelyAfterAnInterruptedRead) {
    const opentest::Folder folder;
    std::string text;
    for (int i = 0; i < 400; ++i)  // 21600 bytes; one read returns at most 16384
        text += "20010db800000000000000000000" + std::to_string(1000 + i) + " 02 40 00 20     eth0\n";
    tablePath = folder.file("table");
    opentest::writeText(tablePath, text);
    readError = EINTR;
    const Result<LocalAddresses> flags = readLocalAddresses();
    ASSERT_TRUE(flags.ok());
    EXPECT_EQ(flags->size(), 400U);
}

TEST(HostAddresses, FailuresOfTheSystemAreReported) {
    openError = ENOENT;
    EXPECT_EQ(readLocalAddresses().status().reason, systemText(ENOENT));
    openError = 0;
    tablePath = "/dev/null";
    readError = EIO;
    EXPECT_EQ(readLocalAddresses().status().reason, systemText(EIO));
    readError = 0;
}

}  // namespace
