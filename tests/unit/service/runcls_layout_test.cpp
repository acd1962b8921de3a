//  Members of the service object and of the process descriptor: their order, types and initial values.
#include "daemon.h"
#include "runcls.h"

#include "recording_rdb.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <type_traits>

#include <gtest/gtest.h>

namespace {

TEST(ServiceObject, MembersHaveTheExpectedOrder) {
    const CRunCls run;
    const auto* base = reinterpret_cast<const char*>(&run);
    const auto at = [&](const auto& member) { return reinterpret_cast<const char*>(&member) - base; };
    const std::ptrdiff_t places[] = {at(run.rdb_handle),     at(run.rdb_connected), at(run.log),
                                     at(run.logurl),         at(run.hostname),      at(run.rdburl),
                                     at(run.rdbuser),        at(run.rdbpswd),       at(run.last_cycle_time),
                                     at(run.last_put_value), at(run.address_list),  at(run.last_sent_value),
                                     at(run.snapshot),       at(run.dns_handle),    at(run.dns_connected),
                                     at(run.dnsurl),         at(run.dnsuser),       at(run.dnspswd),
                                     at(run.seqno),          at(run.dnshttpsports), at(run.last_sent_time)};
    EXPECT_EQ(places[0], 0);
    EXPECT_EQ(places[1], 4);
    EXPECT_EQ(places[2], 8);
    EXPECT_TRUE(std::is_sorted(std::begin(places), std::end(places)));
    EXPECT_EQ(at(run.last_sent_time) + 8, static_cast<std::ptrdiff_t>(sizeof run));
}

TEST(ServiceObject, MembersHaveTheExpectedTypes) {
    static_assert(std::is_same_v<decltype(CRunCls::rdb_handle), std::int32_t>);
    static_assert(std::is_same_v<decltype(CRunCls::rdb_connected), std::uint32_t>);
    static_assert(std::is_same_v<decltype(CRunCls::log), olk::ilog*>);
    static_assert(std::is_same_v<decltype(CRunCls::hostname), std::string>);
    static_assert(std::is_same_v<decltype(CRunCls::last_cycle_time), time_t> && sizeof(time_t) == 8);
    static_assert(std::is_same_v<decltype(CRunCls::snapshot), RdbSnapshot>);
    static_assert(std::is_same_v<decltype(CRunCls::dns_handle), std::int32_t>);
    static_assert(std::is_same_v<decltype(CRunCls::dns_connected), std::uint32_t>);
    static_assert(std::is_same_v<decltype(CRunCls::seqno), std::int32_t>);
    static_assert(std::is_same_v<decltype(CRunCls::last_sent_time), time_t>);
    static_assert(!std::is_polymorphic_v<CRunCls>);
}

TEST(ServiceObject, StartsWithoutHandlesOrLogAndWithEmptyMembers) {
    recording_rdb::reset();
    const CRunCls run;
    EXPECT_EQ(run.rdb_handle, -1);
    EXPECT_EQ(run.dns_handle, -1);
    EXPECT_EQ(run.rdb_connected, 0U);
    EXPECT_EQ(run.dns_connected, 0U);
    EXPECT_EQ(run.log, nullptr);
    EXPECT_EQ(run.last_cycle_time, 0);
    EXPECT_EQ(run.last_sent_time, 0);
    EXPECT_EQ(run.seqno, 0);
    EXPECT_TRUE(run.dnshttpsports.empty());
    for (const std::string* text :
         {&run.logurl, &run.hostname, &run.rdburl, &run.rdbuser, &run.rdbpswd, &run.last_put_value, &run.address_list,
          &run.last_sent_value, &run.dnsurl, &run.dnsuser, &run.dnspswd})
        EXPECT_EQ(*text, "");
    const RdbSnapshot zeros = {};
    EXPECT_EQ(std::memcmp(&run.snapshot, &zeros, sizeof zeros), 0);
    EXPECT_TRUE(recording_rdb::calls().empty());
}

TEST(ServiceDescriptor, MembersHaveTheExpectedOrderAndOffsets) {
    static_assert(std::is_standard_layout_v<CDaemon>);
    EXPECT_EQ(offsetof(CDaemon, pid_fd), 0U);
    EXPECT_EQ(offsetof(CDaemon, pid_work_path), 4U);
    EXPECT_EQ(offsetof(CDaemon, application), 520U);
    EXPECT_EQ(offsetof(CDaemon, msg_key), 528U);
    EXPECT_EQ(offsetof(CDaemon, pid_path), 532U);
    EXPECT_EQ(offsetof(CDaemon, service_name), 1044U);
    EXPECT_EQ(offsetof(CDaemon, version), 1556U);
}

TEST(ServiceDescriptor, StartsClosedWithEmptyTextsAndKey0) {
    const CDaemon fresh;
    EXPECT_EQ(fresh.pid_fd, -1);
    EXPECT_EQ(fresh.application, nullptr);
    EXPECT_EQ(fresh.msg_key, 0);
    for (const char(*text)[512] : {&fresh.pid_work_path, &fresh.pid_path, &fresh.service_name, &fresh.version})
        EXPECT_EQ(std::string(*text, 512), std::string(512, '\0'));
}

TEST(ServiceDescriptor, TheGlobalPointerPointsAtTheGlobalInstance) {
    EXPECT_EQ(g_pdaemon, &g_daemon);
}

}  // namespace
