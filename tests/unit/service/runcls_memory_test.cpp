//  The start of the service object when memory is exhausted.
#include "no_memory.h"
#include "olk_udplog.h"
#include "recording_rdb.h"
#include "runcls.h"
#include "service_platform.h"
#include "service_support.h"

#include <cstring>

#include <gtest/gtest.h>

namespace {

class StartWithoutMemory : public testing::Test {
protected:
    StartWithoutMemory() {
        platform::reset();
        recording_rdb::reset();
        platform::hooks().readlink = [this](const char*, char* target, std::size_t) {
            std::memcpy(target, program.data(), program.size());
            return static_cast<ssize_t>(program.size());
        };
        writeFile(folder.file("addrpubd.ini"), "hostname=h1\nlogurl=udp://192.0.2.1/cabin\n"
                                               "rdburl=rdb://r\nrdbuser=ru\nrdbpswd=rp\n");
    }
    ~StartWithoutMemory() override {
        platform::reset();
        recording_rdb::reset();
    }

    const TempFolder folder;
    const std::string program = folder.file("addrpubd");
    CRunCls run;
};

TEST_F(StartWithoutMemory, WithoutMemoryForAUdpLogItFailsSilently) {
    platform::hooks().pool_refuses = [](std::size_t bytes) { return bytes == sizeof(olk::udplog); };
    const StdoutCapture out;
    EXPECT_FALSE(run.start());
    EXPECT_EQ(run.log, nullptr);
    EXPECT_EQ(out.text(), "");
    EXPECT_TRUE(recording_rdb::calls().empty());
}

TEST_F(StartWithoutMemory, WithoutMemoryForItsTextsItFailsSilently) {
    const StdoutCapture out;
    const bool started = [this] {
        const NoMemory refused;
        return run.start();
    }();
    EXPECT_FALSE(started);
    EXPECT_EQ(out.text(), "");
    EXPECT_TRUE(recording_rdb::calls().empty());
}

}  // namespace
