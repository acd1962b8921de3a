//  The callbacks of the client library. Each callback reads the pointer to the log only once, because the exit signal
//  may set the pointer to null while the callback runs.
#include "exitsignal.h"
#include "runcls.h"

#include <atomic>

namespace {

//  The callbacks write four members that the publish cycle reads. The cycle also writes two of them. The callbacks
//  write these members only through the following four functions, which the list of exceptions for the thread sanitizer
//  names.
void storeRdbConnected(CRunCls& run, std::uint32_t connected) {
    run.rdb_connected = connected;
}

void clearPutMark(CRunCls& run) {
    run.snapshot.time = 0;
}

void storeDnsConnected(CRunCls& run, std::uint32_t connected) {
    run.dns_connected = connected;
}

void clearSentTime(CRunCls& run) {
    run.last_sent_time = 0;
}

//  Compiler barrier: the compiler must not move stores across the call. A connect event clears a mark (snapshot.time or
//  last_sent_time) and then sets a connected flag. A cycle that reads the new flag must also read the cleared mark. The
//  members are plain, so without the barrier the compiler may reorder the two stores.
void compilerBarrier() {
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

}  // namespace

//  The marks are snapshot.time and last_sent_time. A cleared mark is the time 0. So after a reconnection the list is
//  due in the next cycle even if it is unchanged, unless the clock shows a time less than 600 s from the epoch.
void onRdbEvent(std::int32_t event, std::int64_t, void* user) {
    const CallbackStep step;
    CRunCls& run = *static_cast<CRunCls*>(user);
    olk::ilog* log = run.log;
    if (log == nullptr)
        return;
    if (event == RDB_EVENT_CONNECTED) {
        clearPutMark(run);
        compilerBarrier();
        storeRdbConnected(run, 1);
        log->add(olk::level_inf, "connect rdb server %s success.", run.rdburl.c_str());
    } else if (event == RDB_EVENT_DISCONNECTED) {
        storeRdbConnected(run, 0);
        log->add(olk::level_err, "rdb server %s disconnected.", run.rdburl.c_str());
    }
}

void onDnsEvent(std::int32_t event, std::int64_t, void* user) {
    const CallbackStep step;
    CRunCls& run = *static_cast<CRunCls*>(user);
    olk::ilog* log = run.log;
    if (log == nullptr)
        return;
    if (event == RDB_EVENT_CONNECTED) {
        clearSentTime(run);
        compilerBarrier();
        storeDnsConnected(run, 1);
        log->add(olk::level_inf, "connect dns server %s success.", run.dnsurl.c_str());
    } else if (event == RDB_EVENT_DISCONNECTED) {
        storeDnsConnected(run, 0);
        log->add(olk::level_err, "dns server %s disconnected.", run.dnsurl.c_str());
    }
}

void onDnsReply(const char* text, std::int32_t length, void* user) {
    const CallbackStep step;
    CRunCls& run = *static_cast<CRunCls*>(user);
    if (olk::ilog* log = run.log)
        log->add(olk::level_dbg, "recv: %.*s", length, text);
}
