#include "msgqueue.h"

#include "fake_process.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace std::string_literals;

class MsgQueue : public testing::Test {
protected:
    int receive() {
        ++system.polls;
        return queue.receive(text);
    }

    FakeProcess system;
    CMsgQueue queue{23213};
    char text[CMsgQueue::max_text] = {};
};

TEST_F(MsgQueue, IsOpenedWithItsKeyAndCreatedWithMode666) {
    EXPECT_EQ(system.calls, Lines{"msgget 23213 create 666"});
    EXPECT_TRUE(queue.isOpen());
}

TEST_F(MsgQueue, AnIdOf0IsValid) {
    system.queue = 0;
    CMsgQueue first(1);
    EXPECT_TRUE(first.isOpen());
    EXPECT_EQ(first.send("x"), 0);
}

TEST_F(MsgQueue, WithoutAQueueSendFailsAndAllocatesNothing) {
    system.queue = -1;
    CMsgQueue none(1);
    EXPECT_FALSE(none.isOpen());
    EXPECT_EQ(none.send("x"), -1);
    EXPECT_TRUE(system.sent.empty());
    EXPECT_EQ(system.pool_requests, 0);
}

TEST_F(MsgQueue, AMessageIsTheTextWithItsZeroByteAndHasType1) {
    EXPECT_EQ(queue.send("finished"), 0);
    EXPECT_EQ(queue.send(""), 0);
    EXPECT_EQ(queue.send("Start success!\n\n"), 0);
    EXPECT_EQ(system.sent, (Lines{"finished\0"s, "\0"s, "Start success!\n\n\0"s}));
    EXPECT_EQ(system.sent_types, (std::vector<long>{1, 1, 1}));
}

TEST_F(MsgQueue, SendNeverWaits) {
    queue.send("x");
    EXPECT_EQ(system.flags, Lines{"no wait"});
}

TEST_F(MsgQueue, AFullQueueMakesSendFail) {
    system.send_result = -1;
    EXPECT_EQ(queue.send("x"), -1);
}

TEST_F(MsgQueue, TheMessagesMemoryComesFromThePoolAndIsFreed) {
    queue.send("x");
    EXPECT_EQ(system.pool_requests, 1);
    system.send_result = -1;
    queue.send("x");
    EXPECT_EQ(system.pool_requests, 2);
    EXPECT_EQ(system.pool_blocks, 0);
}

TEST_F(MsgQueue, WithoutMemorySendFailsAndNothingIsSent) {
    system.pool_left = 0;
    EXPECT_EQ(queue.send("x"), -1);
    EXPECT_TRUE(system.sent.empty());
}

TEST_F(MsgQueue, ReceiveTakesAMessageOfAnyTypeAndAtMost512BytesWithoutWaiting) {
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(system.receptions, (std::vector<std::pair<std::size_t, long>>{{512, 0}}));
    EXPECT_EQ(system.flags, Lines{"no wait"});
}

TEST_F(MsgQueue, ReceiveOverwritesOnlyTheLengthOfTheMessage) {
    std::memset(text, 'x', sizeof text);
    system.incoming[1].bytes = "ab\0"s;
    EXPECT_EQ(receive(), 3);
    EXPECT_EQ(std::string(text, sizeof text), "ab\0"s.append(509, 'x'));
}

TEST_F(MsgQueue, AMessageOf512BytesFillsTheText) {
    system.incoming[1].bytes = std::string(512, 'm');
    EXPECT_EQ(receive(), 512);
    EXPECT_EQ(std::string(text, sizeof text), std::string(512, 'm'));
}

TEST_F(MsgQueue, AnEmptyMessageChangesNothing) {
    std::strcpy(text, "before");
    system.incoming[1].bytes = "";
    EXPECT_EQ(receive(), 0);
    EXPECT_STREQ(text, "before");
}

TEST_F(MsgQueue, NoMessageOrATooLongMessageChangesNothing) {
    std::strcpy(text, "before");
    system.incoming[2].bytes = std::string(513, 'm');
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(receive(), -1);
    EXPECT_STREQ(text, "before");
}

TEST_F(MsgQueue, RemoveRemovesTheQueueFromTheSystem) {
    system.take_calls();
    queue.remove();
    EXPECT_EQ(system.calls, Lines{"msgctl 7 remove"});
}

}  // namespace
