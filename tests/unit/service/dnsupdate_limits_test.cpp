//  Request numbers up to the maximum, escapes of the host name, and the memory of a request.
#include "service_platform.h"
#include "service_publish.h"

#include <algorithm>

namespace {

using recording_rdb::Function;

class UpdateLimits : public PublishTest {
protected:
    std::string request() {
        DnsUpdateItem item;
        item.ipv6s.push_back(olk::string("1::1"));
        run.updateDomain(item);
        return callsOf(Function::callmsg).back().text;
    }
    std::string numberOf(const std::string& text) const {
        const std::size_t start_of_number = text.find("\"seqno\":") + 8;
        return text.substr(start_of_number, text.find(',', start_of_number) - start_of_number);
    }
    //  Returns the host name as it is written in the request.
    std::string shown(const std::string& hostname) {
        run.hostname = hostname;
        const std::string text = request();
        const std::size_t first = text.find("\"name\":\"") + 8;
        return text.substr(first, text.find("\",\"ipv6s\"") - first);
    }
};

TEST_F(UpdateLimits, TheFirstRequestHasNumber1TheNextNumber2) {
    EXPECT_EQ(numberOf(request()), "1");
    EXPECT_EQ(numberOf(request()), "2");
    EXPECT_EQ(numberOf(request()), "3");
    EXPECT_EQ(run.seqno, 3);
}

TEST_F(UpdateLimits, ARefusedRequestConsumesItsNumber) {
    recording_rdb::script_result(Function::callmsg, 0, 1);
    EXPECT_EQ(numberOf(request()), "1");
    EXPECT_EQ(numberOf(request()), "2");
}

TEST_F(UpdateLimits, AfterTheMaximumEveryRequestHasNumber1) {
    run.seqno = INT32_MAX - 1;
    EXPECT_EQ(numberOf(request()), "2147483647");
    EXPECT_EQ(numberOf(request()), "1");
    EXPECT_EQ(numberOf(request()), "1");
    EXPECT_EQ(run.seqno, INT32_MAX);
}

TEST_F(UpdateLimits, BackslashAndSlashOfTheHostNameAreEscaped) {
    EXPECT_EQ(shown("a\\b/c"), R"(a\\b\/c)");
}

TEST_F(UpdateLimits, FiveControlCharactersOfTheHostNameAreEscaped) {
    EXPECT_EQ(shown("\b\t\n\f\r"), R"(\b\t\n\f\r)");
}

TEST_F(UpdateLimits, OtherControlCharactersAreNotEscaped) {
    for (int c = 1; c < 32; ++c) {
        if (std::string("\b\t\n\f\r").find(static_cast<char>(c)) != std::string::npos)
            continue;
        const std::string name = std::string("a") + static_cast<char>(c) + "b";
        EXPECT_EQ(shown(name), name);
    }
    EXPECT_EQ(shown("a\x7F\x80\xFF"), "a\x7F\x80\xFF");
}

TEST_F(UpdateLimits, TheTextBufferIsAllocatedOnceWith416Bytes) {
    std::vector<std::size_t> sizes;
    platform::hooks().pool_refuses = [&](std::size_t size) {
        sizes.push_back(size);
        return false;
    };
    DnsUpdateItem item;
    item.ipv6s.push_back(olk::string("2001:db8::1"));
    item.ipv6s.push_back(olk::string("2001:db8::2"));
    parsePortList("443,8443", run.dnshttpsports);
    sizes.clear();
    run.updateDomain(item);
    EXPECT_EQ(std::count(sizes.begin(), sizes.end(), 416U), 1);
    //  No request to the pool was larger, so the text was reserved once and did not grow.
    EXPECT_EQ(*std::max_element(sizes.begin(), sizes.end()), 416U);
}

TEST_F(UpdateLimits, TheBufferIsReservedBeforeTheTextIsWritten) {
    std::size_t last = 0;
    platform::hooks().pool_refuses = [&](std::size_t size) {
        last = size;
        return false;
    };
    request();
    EXPECT_EQ(last, 416U);
}

TEST_F(UpdateLimits, EveryBlockIsFreedIfTheRequestIsAcceptedAndIfItIsRefused) {
    for (const int result : {0, 5}) {
        recording_rdb::script_result(Function::callmsg, recording_rdb::every_call, result);
        const long before = platform::pool_blocks;
        request();
        EXPECT_EQ(platform::pool_blocks, before);
    }
}

TEST_F(UpdateLimits, ARequestOfAThousandAddressesIsCompleteAndTerminated) {
    DnsUpdateItem item;
    for (int i = 0; i < 1000; ++i)
        item.ipv6s.push_back(olk::string("2001:db8:1111:1111:1111:1111:1111:1111"));
    run.updateDomain(item);
    const auto call = callsOf(Function::callmsg).at(0);
    EXPECT_TRUE(call.terminated);
    EXPECT_EQ(call.length, static_cast<std::int32_t>(call.text.size()));
    EXPECT_GT(call.length, 41000);
    EXPECT_TRUE(call.text.ends_with("\"httpsports\":[]}}"));
}

//  Without memory the request may be shortened or empty. It must still be terminated, and nothing may leak.
TEST_F(UpdateLimits, AnyOneFailedRequestToThePoolIsHarmless) {
    long requests_of_one = platform::pool_requests;
    request();
    requests_of_one = platform::pool_requests - requests_of_one;
    ASSERT_GT(requests_of_one, 3);
    for (long refused = 0; refused < requests_of_one; ++refused) {
        const long before = platform::pool_blocks;
        platform::hooks().pool_refuses = [n = refused](std::size_t) mutable { return n-- == 0; };
        request();
        platform::hooks().pool_refuses = nullptr;
        EXPECT_EQ(platform::pool_blocks, before);
        EXPECT_TRUE(callsOf(Function::callmsg).back().terminated);
    }
}

TEST_F(UpdateLimits, APoolWithoutMemoryIsHarmless) {
    connect(true, true);
    platform::hooks().pool_refuses = [](std::size_t) { return true; };
    const long before = platform::pool_blocks;
    EXPECT_EQ(puts(start), 1U);
    EXPECT_EQ(platform::pool_blocks, before);
    EXPECT_EQ(run.last_sent_time, start);
}

}  // namespace
