//  The back end for urls of the form hosts:///PATH, called through the library's nine functions and directly.
#include "hosts/backend.h"

#include "open_support.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
int flushes = 0;
int failingFlush = 0;  // number of the flush that fails, from 1
}  // namespace

extern "C" int __real_fsync(int fd);
extern "C" int __wrap_fsync(int fd) {
    if (++flushes != failingFlush)
        return __real_fsync(fd);
    errno = EIO;
    return -1;
}

namespace {

using namespace opentest;
using namespace rdbopen;

class HostsBackend : public testing::Test {
protected:
    ~HostsBackend() override {
        rdb_disconnect(handle);
        rdb_destory(handle);
        workersEnded();  // callbacks write to members, so they must have ended
    }
    void connect(const std::string& path) {
        ASSERT_EQ(rdb_setmessagenotify(handle, onEvent, &events), 0);
        ASSERT_EQ(rdb_connectex(handle, ("hosts://" + path).c_str(), "u", "p", 0), 0);
        ASSERT_EQ(events.take(), RDB_EVENT_CONNECTED);
    }
    std::string send(const std::string& text) {
        EXPECT_EQ(rdb_callmsg(handle, text.data(), static_cast<std::int32_t>(text.size()), onReply, &replies), 0);
        return replies.take();
    }
    std::string update(const std::string& name, const std::string& address) {
        return send("{\"request\":\"ws_dnsupdate\",\"seqno\":7,\"item\":{\"name\":\"" + name + "\",\"ipv6s\":[\"" +
                    address + "\"]}}");
    }
    ino_t inode() const {
        struct stat status {};
        return stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
    }

    Folder folder;
    const std::string file = folder.file("hosts");
    const int handle = rdb_create();
    Events events;
    Replies replies;
};

constexpr auto done = "{\"seqno\":7,\"code\":0,\"message\":\"ok\"}";

TEST_F(HostsBackend, OnlyAddressesThatPassTheFiltersHaveLines) {
    connect(file + "?only=2001:db8::/32,fd00::/8&skip=ula");
    const auto line = [](const char* address) { return std::string(address) + " host1 # addrpubd host1\n"; };
    EXPECT_NE(update("host1", "2001:db8::1\",\"fd00::1\",\"2001:db9::1").find("\"code\":0"), std::string::npos);
    EXPECT_EQ(readText(file), line("2001:db8::1"));
    EXPECT_NE(update("host1", "2001:db9::1").find("\"code\":0"), std::string::npos);
    EXPECT_EQ(readText(file), "");
}

TEST(HostsOptions, AnInvalidOptionIsRefusedWithAReason) {
    const std::pair<const char*, const char*> rows[] = {
        {"hosts:///f?ttl=5", "malformed url: it has an option other than only and skip (write ? as %3F in a path)"},
        {"hosts:///f?skip=ula&skip=ula", "malformed url: the option skip is given twice"},
        {"hosts:///f?only=x", "malformed url: only is not a list of IPv6 prefixes, as in 2001:db8:1::/48"},
    };
    for (const auto& [url, reason] : rows) {
        EXPECT_EQ(makeBackend(url, {}).status().code, errorBadUrl) << url;
        EXPECT_EQ(makeBackend(url, {}).status().reason, reason) << url;
    }
}

TEST_F(HostsBackend, AnUpdateCreatesAMissingFile) {
    connect(file);
    EXPECT_EQ(update("host1", "2001:db8::1"), done);
    EXPECT_EQ(readText(file), "2001:db8::1 host1 # addrpubd host1\n");
}

TEST_F(HostsBackend, AnUpdateKeepsLinesOfOthers) {
    writeText(file, "127.0.0.1 localhost\n2001:db8::9 host1\n");
    connect(file);
    EXPECT_EQ(update("host1", "2001:db8::1"), done);
    EXPECT_EQ(update("host1", "2001:db8::2"), done);
    EXPECT_EQ(readText(file), "127.0.0.1 localhost\n2001:db8::9 host1\n2001:db8::2 host1 # addrpubd host1\n");
}

TEST_F(HostsBackend, TwoHostsShareOneFile) {
    connect(file);
    EXPECT_EQ(update("a", "::1"), done);
    EXPECT_EQ(update("b", "::2"), done);
    EXPECT_EQ(update("a", "::3"), done);
    EXPECT_EQ(readText(file), "::3 a # addrpubd a\n::2 b # addrpubd b\n");
}

TEST_F(HostsBackend, AnUpdateThatChangesNothingDoesNotWriteTheFile) {
    connect(file);
    EXPECT_EQ(update("a", "::1"), done);
    const ino_t before = inode();
    EXPECT_EQ(update("a", "::1"), done);
    EXPECT_EQ(inode(), before);
}

TEST_F(HostsBackend, AnEditBetweenTwoUpdatesSurvives) {
    connect(file);
    EXPECT_EQ(update("a", "::1"), done);
    writeText(file, readText(file) + "::9 other\n");
    EXPECT_EQ(update("a", "::2"), done);
    EXPECT_EQ(readText(file), "::2 a # addrpubd a\n::9 other\n");
}

TEST_F(HostsBackend, AMalformedRequestIsAnsweredAndTheConnectionStaysUp) {
    connect(file);
    EXPECT_EQ(send("nonsense"), "{\"seqno\":null,\"code\":1013,\"message\":\"the request is not a JSON object\"}");
    std::string reply;
    EXPECT_EQ(backendFor("hosts://" + file)->updates()->apply("nonsense", reply).reason,
              "the request is not a JSON object");
    EXPECT_EQ(update("a", "::1"), done);
    EXPECT_EQ(events.count(), 0U);
}

TEST_F(HostsBackend, ARemovedFolderEndsTheConnection) {
    std::filesystem::create_directory(folder.file("sub"));
    connect(folder.file("sub/hosts"));
    std::filesystem::remove_all(folder.file("sub"));
    EXPECT_NE(update("a", "::1").find("\"code\":1014"), std::string::npos);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
}

TEST_F(HostsBackend, TagCallsAreNotSupported) {
    connect(file);
    RdbTag tag = tagNamed("t");
    const RdbSnapshot record = recordOf("t", "v");
    std::int32_t result = 0;
    EXPECT_EQ(rdb_tagget(handle, &tag), errorNotSupported);
    EXPECT_EQ(rdb_taginport(handle, RDB_TAGINPORT_MODE, &tag, &result), errorNotSupported);
    EXPECT_EQ(rdb_objputsnapshot(handle, &record, 1), errorNotSupported);
}

//  Opens the back end without a worker, so that the test gets its error code.
int openCode(const std::string& path) {
    return backendFor("hosts://" + path)->open(plainWaiter).code;
}

//  The back end without a worker, so that each request is made exactly once.
class HostsBackendAlone : public testing::Test {
protected:
    HostsBackendAlone() {
        flushes = 0;
        failingFlush = 0;
    }
    ~HostsBackendAlone() override { failingFlush = 0; }
    int update(const std::string& address) {
        const std::string text =
            R"({"request":"ws_dnsupdate","seqno":7,"item":{"name":"a","ipv6s":[")" + address + "\"]}}";
        return backend->updates()->apply(text, reply).code;
    }

    Folder folder;
    const std::string file = folder.file("hosts");
    const std::unique_ptr<Backend> backend = backendFor("hosts://" + file);
    std::string reply;
};

TEST_F(HostsBackendAlone, ARetryAfterAFailedFlushOfTheFolderFlushesItAgain) {
    failingFlush = 2;  // the first flush is that of the file
    EXPECT_EQ(update("::1"), errorBackendFailed);
    EXPECT_EQ(readText(file), "::1 a # addrpubd a\n");
    failingFlush = 3;
    EXPECT_EQ(update("::1"), errorBackendFailed);
    EXPECT_EQ(update("::1"), 0);
    EXPECT_EQ(flushes, 4);
}

TEST_F(HostsBackendAlone, TheFolderOfAnUnchangedFileIsFlushedOnceByANewBackEnd) {
    writeText(file, "::1 a # addrpubd a\n");
    EXPECT_EQ(update("::1"), 0);
    EXPECT_EQ(flushes, 1);
    EXPECT_EQ(update("::1"), 0);
    EXPECT_EQ(flushes, 1);
}

TEST_F(HostsBackendAlone, AFileThatWouldBecomeTooLargeIsUnchangedAndTheReplyReportsWhy) {
    const std::string line = "#" + std::string(1022, 'x') + "\n";
    std::string full;
    while (full.size() < 16 << 20)
        full += line;
    writeText(file, full);
    EXPECT_EQ(update("::1"), errorServerRefused);
    EXPECT_NE(reply.find("the file would be larger than 16 MiB"), std::string::npos);
    EXPECT_TRUE(readText(file) == full);
    writeText(file, full.substr(line.size()));
    EXPECT_EQ(update("::1"), 0);
}

TEST(HostsBackendOpen, AMissingFolderFails) {
    EXPECT_EQ(openCode("/nonexistent/hosts"), errorBackendFailed);
}

TEST(HostsBackendOpen, ALinkOfAnotherUserInASharedFolderIsNotFollowed) {
    const Folder folder;
    std::filesystem::create_directory(folder.file("shared"));
    writeText(folder.file("victim"), "kept");
    const std::string link = folder.file("shared/hosts");
    ASSERT_EQ(symlink("../victim", link.c_str()), 0);
    if (lchown(link.c_str(), 1234, 1234) != 0)
        GTEST_SKIP() << "needs root";
    EXPECT_EQ(openCode(link), 0);
    ASSERT_EQ(chmod(folder.file("shared").c_str(), 01777), 0);
    EXPECT_EQ(backendFor("hosts://" + link)->open(plainWaiter).reason,
              "the file cannot be reached: the link " + link +
                  " in a folder that others can write belongs to somebody else");
}

TEST(HostsBackendOpen, AFolderInPlaceOfTheFileFails) {
    const Folder folder;
    std::filesystem::create_directory(folder.file("hosts"));
    EXPECT_EQ(openCode(folder.file("hosts")), errorBackendFailed);
}

TEST(HostsBackendOpen, AFifoFailsWithoutBlocking) {
    const Folder folder;
    ASSERT_EQ(mkfifo(folder.file("hosts").c_str(), 0600), 0);
    EXPECT_EQ(openCode(folder.file("hosts")), errorBackendFailed);
}

TEST(HostsBackendOpen, AFolderThatCannotBeWrittenFails) {
    EXPECT_EQ(openCode("/proc/hosts"), errorBackendFailed);
}

TEST(HostsBackendOpen, AFolderWhereOnlyTheLockFileCanBeWrittenFails) {
    const Folder folder;
    std::filesystem::create_directory(folder.file(".hosts.addrpubd.tmp"));
    EXPECT_EQ(openCode(folder.file("hosts")), errorBackendFailed);
}

TEST(HostsBackendOpen, LeavesOnlyTheLockFile) {
    const Folder folder;
    EXPECT_EQ(openCode(folder.file("hosts")), 0);
    EXPECT_EQ(entriesOf(folder.path().c_str()), 1U);
    EXPECT_TRUE(std::filesystem::exists(folder.file(".hosts.addrpubd.lock")));
}

}  // namespace
