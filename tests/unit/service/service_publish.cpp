#include "service_publish.h"

#include "service_platform.h"

#include <algorithm>

using recording_rdb::Call;
using recording_rdb::Function;

std::string lineOf(const Call& call) {
    std::string line = std::string(recording_rdb::name_of(call.function)) + " " + std::to_string(call.handle);
    if (call.function == Function::tagget || call.function == Function::taginport)
        line += " " + std::string(call.record.c_str() + 12);
    if (call.function == Function::objputsnapshot)
        line += " " + std::string(call.record.c_str()) + "=" + std::string(call.record.c_str() + 104);
    if (call.function == Function::callmsg)
        line += " " + call.text;
    return line;
}

PublishTest::PublishTest() {
    recording_rdb::reset();
    platform::hooks().time = [this] {
        ++clock_reads;
        return clock;
    };
    platform::hooks().nanosleep = [this](const timespec* request) {
        sleeps.emplace_back(request->tv_sec, request->tv_nsec);
        return 0;
    };
    interfaces.set(Lines{"2001:db8::1"});
    run.log = &log;
    run.hostname = "host1";
    run.rdburl = "rdb://server";
    run.dnsurl = "dns://server";
    run.rdb_handle = rdb_create();
    run.dns_handle = rdb_create();
    rdb_setmessagenotify(run.rdb_handle, onRdbEvent, &run);
    rdb_setmessagenotify(run.dns_handle, onDnsEvent, &run);
    recording_rdb::set_observer([this](const Call& call) { trace.add(lineOf(call)); });
}

PublishTest::~PublishTest() {
    run.log = nullptr;
    recording_rdb::reset();
    platform::reset();
}

Lines PublishTest::cycle(time_t now) {
    clock = now;
    trace.take();
    run.publishOnce();
    return trace.take();
}

std::size_t PublishTest::puts(time_t now) {
    const Lines lines = cycle(now);
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [](const std::string& line) { return line.starts_with("rdb_objputsnapshot"); }));
}

std::size_t PublishTest::requests(time_t now) {
    const Lines lines = cycle(now);
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [](const std::string& line) { return line.starts_with("rdb_callmsg"); }));
}

void PublishTest::connect(bool to_rdb, bool to_dns) {
    run.rdb_connected = to_rdb ? 1 : 0;
    run.dns_connected = to_dns ? 1 : 0;
}

std::vector<Call> PublishTest::callsOf(Function function) {
    return recording_rdb::calls_of(function);
}
