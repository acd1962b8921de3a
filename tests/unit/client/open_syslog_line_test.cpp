//  The text of a syslog line, and its delivery to a daemon. The daemon's socket belongs to the test.
#include "engine/report.h"

#include "open_support.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace opentest;
using namespace rdbopen;

//  The socket of a syslog daemon. The daemon reads only when the test calls read or readOfNextConnection.
class Daemon {
public:
    Daemon(const std::string& path, int type) : descriptor_(socket(AF_UNIX, type, 0)) {
        unlink(path.c_str());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_TRUE(type == SOCK_DGRAM || listen(descriptor_, 1) == 0);
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon() { close(descriptor_); }

    std::string read() const { return readFrom(descriptor_); }
    std::string readOfNextConnection() const {
        const int connection = accept(descriptor_, nullptr, nullptr);
        std::string text = readFrom(connection);
        close(connection);
        return text;
    }

private:
    static std::string readFrom(int descriptor) {
        char bytes[256];
        const ssize_t taken = recv(descriptor, bytes, sizeof bytes, MSG_DONTWAIT);
        return taken < 0 ? "nothing" : std::string(bytes, static_cast<std::size_t>(taken));
    }

    int descriptor_;
};

class SyslogLineTest : public testing::Test {
protected:
    bool send(const std::string& line) const { return sendSyslogLine(path.c_str(), line); }

    Folder folder;
    const std::string path = folder.file("log");
};

TEST_F(SyslogLineTest, HasPriorityLocalTimeAndTheProgramsName) {
    setenv("TZ", "UTC-2", 1);
    tzset();
    const std::string program = program_invocation_short_name;
    EXPECT_EQ(syslogLine(27, 0, "a text"), "<27>Jan  1 02:00:00 " + program + ": a text");
    EXPECT_EQ(syslogLine(30, 1764633599, "%s"), "<30>Dec  2 01:59:59 " + program + ": %s");
    unsetenv("TZ");
    tzset();
}

TEST_F(SyslogLineTest, ReachesADaemonAsOneDatagram) {
    const Daemon daemon(path, SOCK_DGRAM);
    EXPECT_TRUE(send("one"));
    EXPECT_TRUE(send("two"));
    EXPECT_EQ(daemon.read(), "one");
    EXPECT_EQ(daemon.read(), "two");
}

TEST_F(SyslogLineTest, ReachesADaemonWithAStreamSocketAndEndsInAZeroByte) {
    const Daemon daemon(path, SOCK_STREAM);
    EXPECT_TRUE(send("one"));
    EXPECT_EQ(daemon.readOfNextConnection(), std::string("one", 4));
}

TEST_F(SyslogLineTest, IsLostWithoutADaemonAndLaterLinesReachANewDaemon) {
    EXPECT_FALSE(send("nobody"));
    { const Daemon daemon(path, SOCK_DGRAM); }
    EXPECT_FALSE(send("gone"));
    const Daemon next(path, SOCK_DGRAM);
    EXPECT_TRUE(send("there"));
    EXPECT_EQ(next.read(), "there");
}

//  A library that waits for the daemon would hang here.
TEST_F(SyslogLineTest, IsLostInsteadOfWaitingForADaemonThatDoesNotRead) {
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const Daemon daemon(path, type);
        int sent = 0;
        while (sent < 100000 && send("line"))
            ++sent;
        EXPECT_GT(sent, 0);
        EXPECT_LT(sent, 100000);
        EXPECT_FALSE(send("line"));
    }
}

TEST_F(SyslogLineTest, LeaksNoDescriptor) {
    const Daemon daemon(path, SOCK_DGRAM);
    const std::size_t before = entriesOf("/proc/self/fd");
    send("line");
    sendSyslogLine("/nowhere", "line");
    sendSyslogLine(std::string(200, 'x').c_str(), "line");
    EXPECT_EQ(entriesOf("/proc/self/fd"), before);
}

}  // namespace
