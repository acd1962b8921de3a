//  The publish cycle.
//
//  An object without a log also publishes, so the pointer to the log is tested before each use.
#include "exitsignal.h"
#include "localaddr.h"
#include "runcls.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

constexpr char no_address[] = "null";        // address list if no publishable address is found
constexpr std::uint64_t max_put_age = 5999;  // tenths of a second; after that an unchanged list is put again
constexpr std::uint64_t max_sent_age = 599;  // seconds; after that an unchanged list is sent again

//  Returns the distance between two clock readings. Unsigned subtraction cannot overflow, whatever the clock shows.
std::uint64_t difference(std::int64_t a, std::int64_t b) {
    const auto distance = static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b);
    return a < b ? 0 - distance : distance;
}

std::int64_t toTenths(time_t now) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(now) * 10);
}

//  Returns false if the time of the last cycle differs from now by at most 9 seconds, in either direction. So a clock
//  that is set back, however far, delays the next cycle by less than 19 seconds.
bool cycleIsDue(time_t now, time_t last) {
    return static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(last) + 9 > 18;
}

//  Copies text into a zeroed field. The text is shortened if necessary, so that the field ends with a zero. Returns the
//  number of bytes copied.
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
    if (!cycleIsDue(now, last_cycle_time))
        return;
    last_cycle_time = now;
    const ServiceStep step;
    try {
        runCycle(now);
    } catch (const std::bad_alloc&) {
        //  Nothing is lost: last_put_value and last_sent_value are set after the put and the request. If memory is
        //  exhausted before one of them is set, a changed list still differs from it, so the next cycle makes or
        //  repeats the put or the request.
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

//  Returns false if the tag is not available; then the cycle ends, and the next cycle tries again. A failed put is
//  treated like a successful put: the next put is made when the list changes, after 600 seconds, or after a
//  reconnection.
bool CRunCls::putSnapshot(time_t now) {
    if (address_list == last_put_value && difference(toTenths(now), snapshot.time) <= max_put_age)
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
    snapshot.time = toTenths(now);
    last_put_value = address_list;
    return true;
}

//  Looks up the tag of the host. Imports it if the lookup fails or the tag does not accept values. Returns false if
//  this import fails. The result of a second import, for a tag that still does not accept values, is ignored.
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

//  A request is treated as sent even if it fails. The list "null", which means no address, is neither sent nor
//  remembered. If the next list is the same as the last one before "null", it is sent when it would have been due
//  anyway; a different list is sent at once.
void CRunCls::sendUpdate(time_t now) {
    if (dns_handle < 0 || dns_connected == 0 || address_list == no_address)
        return;
    if (address_list == last_sent_value && difference(now, last_sent_time) <= max_sent_age)
        return;
    DnsUpdateItem item;
    splitAddressList(address_list, item.ipv6s);
    if (!item.ipv6s.empty())
        updateDomain(item);
    last_sent_time = now;
    last_sent_value = address_list;
}

std::int32_t CRunCls::updateDomain(DnsUpdateItem& item) {
    //  The counter is deliberately never reset: after its maximum, every request has number 1.
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
