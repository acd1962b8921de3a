//  The publish cycle.
//
//  Every record tests the log's pointer: an object without a log publishes all the same.
#include "exitsignal.h"
#include "localaddr.h"
#include "runcls.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

constexpr char no_address[] = "null";      // the address list of a host without a publishable address
constexpr std::uint64_t put_fresh = 5999;  // a put is repeated when its mark differs by more: tenths of a second
constexpr std::uint64_t sent_fresh = 599;  // a request is repeated when its second differs by more

//  Clock readings are subtracted as unsigned numbers: the clock may be set to anything.
std::uint64_t difference(std::int64_t a, std::int64_t b) {
    const auto distance = static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b);
    return a < b ? 0 - distance : distance;
}

std::int64_t putMark(time_t now) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(now) * 10);
}

//  Returns false within 9 seconds of the last cycle, to either side. A clock that was set back by at least ten seconds
//  does not delay the next cycle.
bool passesGate(time_t now, time_t last) {
    return static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(last) + 9 > 18;
}

//  Copies text into a zeroed field, cut so that its terminating zero stays. Returns the bytes copied.
template <std::size_t N>
std::size_t copyText(char (&field)[N], const std::string& text) {
    const std::size_t length = std::min(text.size(), N - 1);
    std::memcpy(field, text.data(), length);
    return length;
}

}  // namespace

void CRunCls::publishOnce() {
    const timespec pause = {0, 100'000'000};
    nanosleep(&pause, nullptr);
    if (rdb_connected == 0 && dns_connected == 0)
        return;
    const time_t now = time(nullptr);
    if (!passesGate(now, last_cycle_time))
        return;
    last_cycle_time = now;
    const ServiceStep step;
    try {
        runCycle(now);
    } catch (const std::bad_alloc&) {
        //  The texts keep what they had; the next cycle compares with them again.
    }
}

void CRunCls::runCycle(time_t now) {
    listAddresses();
    if (rdb_connected != 0 && !putSnapshot(now))
        return;
    sendUpdate(now);
}

void CRunCls::listAddresses() {
    address_list.clear();
    if (getLocalIpv6List(address_list) < 0) {
        if (olk::ilog* sink = log)
            sink->add(olk::level_err, "get ipv6 address failed.");
        address_list = no_address;
    }
    if (address_list.empty())
        address_list = no_address;
}

//  Returns false when the tag could not be had: the cycle ends and the whole step is tried again in the next one. A put
//  that fails counts as done, so it is not repeated before the list changes, it grows old or the server reconnects.
bool CRunCls::putSnapshot(time_t now) {
    if (address_list == last_put_value && difference(putMark(now), snapshot.time) <= put_fresh)
        return true;
    if (!ensureTag())
        return false;

    snapshot = {};
    copyText(snapshot.name, hostname);
    snapshot.valuetype = RDB_VALUE_TYPE_TEXT;
    snapshot.valuelen = static_cast<std::uint16_t>(copyText(snapshot.value, address_list));
    endIfSignalled();
    const int result = rdb_objputsnapshot(rdb_handle, &snapshot, 1);
    olk::ilog* sink = log;
    if (sink != nullptr && result == 0)
        sink->add(olk::level_inf, "rdb_objputsnapshot %s success,ipv6= %s", hostname.c_str(), address_list.c_str());
    else if (sink != nullptr)
        sink->add(olk::level_err, "rdb_objputsnapshot %s failed, errcode %d", hostname.c_str(), result);
    snapshot.time = putMark(now);
    last_put_value = address_list;
    return true;
}

//  Makes sure that the tag named after the host exists and can take a value. Returns false when it cannot be imported.
bool CRunCls::ensureTag() {
    RdbTag tag = {};
    copyText(tag.name, hostname);
    endIfSignalled();
    const int result = rdb_tagget(rdb_handle, &tag);
    if (result == 0 && tag.tagclass == RDB_TAG_CLASS_USABLE)
        return true;
    olk::ilog* sink = log;
    if (sink != nullptr && result != 0)
        sink->add(olk::level_err, "rdb_tagget %s failed, errcode %d", hostname.c_str(), result);
    if (!importTag(tag))
        return false;
    if (tag.tagclass != RDB_TAG_CLASS_USABLE)
        importTag(tag);
    return true;
}

bool CRunCls::importTag(RdbTag& tag) {
    tag = {};
    copyText(tag.name, hostname);
    tag.tagclass = RDB_TAG_CLASS_USABLE;
    tag.valuetype = RDB_VALUE_TYPE_TEXT;
    tag.importflag = 1;
    std::int32_t filled = 0;
    endIfSignalled();
    const int result = rdb_taginport(rdb_handle, RDB_TAGINPORT_MODE, &tag, &filled);
    olk::ilog* sink = log;
    if (sink != nullptr && result != 0)
        sink->add(olk::level_err, "rdb_taginport %s failed, errcode %d", hostname.c_str(), result);
    else if (sink != nullptr)
        sink->add(olk::level_inf, "rdb_taginport %s success", hostname.c_str());
    return result == 0;
}

//  Whatever becomes of the request, it counts as sent. Without an address nothing is sent or remembered: a list that
//  comes back as it was is due when it would have been, another one is sent at once.
void CRunCls::sendUpdate(time_t now) {
    if (dns_handle < 0 || dns_connected == 0 || address_list == no_address)
        return;
    if (address_list == last_sent_value && difference(now, last_sent_time) <= sent_fresh)
        return;
    DnsUpdateItem item;
    splitAddressList(address_list, item.ipv6s);
    if (!item.ipv6s.empty())
        updateDomain(item);
    last_sent_time = now;
    last_sent_value = address_list;
}

std::int32_t CRunCls::updateDomain(DnsUpdateItem& item) {
    //  The counter is never reset, on purpose: once it has reached its top, every request carries 1.
    const std::int32_t number = seqno == INT32_MAX ? 1 : ++seqno;

    item.name.clear();
    if (!hostname.empty())
        item.name.append(hostname.data(), hostname.size());
    for (const std::uint16_t port : dnshttpsports)
        item.httpsports.push_back(port);

    olk::string text;
    text.reserve(dns_request_reserve);
    writeDnsUpdateRequest(number, item, text);
    const auto length = static_cast<std::int32_t>(text.size());
    if (olk::ilog* sink = log)
        sink->add(olk::level_dbg, "send: %.*s", length, text.c_str());
    endIfSignalled();
    const int result = rdb_callmsg(dns_handle, text.c_str(), length, onDnsReply, this);
    if (result == 0)
        return 0;
    if (olk::ilog* sink = log)
        sink->add(olk::level_err, "updateDomain errorcode %d", result);
    return -1;
}
