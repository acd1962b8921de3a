//  Compares the publish cycle with a model over many random steps: events, changes of the clock and of the addresses,
//  and result codes of all calls. After each step these are compared: the calls (including the bytes of their records),
//  the log records, and the flags, times, lists and request number of the service object.
#include "service_publish.h"

#include <cstring>
#include <random>

namespace {

using recording_rdb::Call;
using recording_rdb::Function;

//  The events and results during one pass.
struct World {
    time_t now;
    bool listing_fails;
    Lines addresses;  // publishable addresses
    int get_result, get_class;
    int import_result[2], import_class[2];  // a negative class leaves the record's byte unchanged
    int put_result, message_result;
    int event_in_put;  // event of the rdb connection during the put; 0 for none
};

std::string bytesLine(Function function, int handle, const std::string& bytes) {
    return std::string(recording_rdb::name_of(function)) + " " + std::to_string(handle) + " " + bytes;
}

class Model {
public:
    std::string host, ports, rdb_url, dns_url;
    int rdb_handle = 0, dns_handle = 1;
    bool rdb_up = false, dns_up = false;
    time_t cycle_time = 0, sent_time = 0;
    std::int64_t mark = 0;
    std::string put_value, sent_value;
    int number = 0;
    Lines trace;

    void rdbEvent(int code) {
        if (code == 60001) {
            mark = 0;
            rdb_up = true;
            log(30, "connect rdb server " + rdb_url + " success.");
        } else if (code == 60003) {
            rdb_up = false;
            log(10, "rdb server " + rdb_url + " disconnected.");
        }
    }

    void dnsEvent(int code) {
        if (code == 60001) {
            sent_time = 0;
            dns_up = true;
            log(30, "connect dns server " + dns_url + " success.");
        } else if (code == 60003) {
            dns_up = false;
            log(10, "dns server " + dns_url + " disconnected.");
        }
    }

    void pass(const World& world) {
        if (!rdb_up && !dns_up)
            return;
        if (std::abs(world.now - cycle_time) < 10)
            return;
        cycle_time = world.now;
        std::string list;
        if (world.listing_fails)
            log(10, "get ipv6 address failed.");
        else
            for (const std::string& address : world.addresses)
                list += list.empty() ? address : "," + address;
        if (list.empty())
            list = "null";
        if (rdb_up && (list != put_value || std::abs(world.now * 10 - mark) >= 6000) && !put(world, list))
            return;
        if (dns_handle < 0 || !dns_up || list == "null")
            return;
        if (list != sent_value || std::abs(world.now - sent_time) >= 600)
            send(world, list);
    }

private:
    void log(int level, const std::string& text) { trace.push_back(std::to_string(level) + " " + text); }

    bool import(const World& world, int which, int& tag_class) {
        std::string record(256, '\0');
        record.replace(12, std::min<std::size_t>(host.size(), 79), host, 0, 79);
        record[4] = 6;
        record[189] = 2;
        record[191] = 1;
        trace.push_back(bytesLine(Function::taginport, rdb_handle, record));
        const int result = world.import_result[which];
        tag_class = world.import_class[which] < 0 ? 2 : world.import_class[which];
        if (result == 0)
            log(30, "rdb_taginport " + host + " success");
        else
            log(10, "rdb_taginport " + host + " failed, errcode " + std::to_string(result));
        return result == 0;
    }

    bool put(const World& world, const std::string& list) {
        std::string query(256, '\0');
        query.replace(12, std::min<std::size_t>(host.size(), 79), host, 0, 79);
        trace.push_back(bytesLine(Function::tagget, rdb_handle, query));
        if (world.get_result != 0)
            log(10, "rdb_tagget " + host + " failed, errcode " + std::to_string(world.get_result));
        if (world.get_result != 0 || world.get_class != 2) {
            int tag_class = 0;
            if (!import(world, 0, tag_class))
                return false;
            if (tag_class != 2)
                import(world, 1, tag_class);
        }
        const std::string value = list.substr(0, 999);
        std::string record(1104, '\0');
        record.replace(0, std::min<std::size_t>(host.size(), 79), host, 0, 79);
        record.replace(104, value.size(), value);
        record[96] = 6;
        record[102] = static_cast<char>(value.size() & 0xff);
        record[103] = static_cast<char>(value.size() >> 8);
        trace.push_back(bytesLine(Function::objputsnapshot, rdb_handle, record));
        rdbEvent(world.event_in_put);
        if (world.put_result == 0)
            log(30, "rdb_objputsnapshot " + host + " success,ipv6= " + list);
        else
            log(10, "rdb_objputsnapshot " + host + " failed, errcode " + std::to_string(world.put_result));
        mark = world.now * 10;
        put_value = list;
        return true;
    }

    static std::string quoted(const std::string& text) {
        std::string out = "\"";
        for (const char c : text) {
            const std::size_t place = std::string("\b\t\n\f\r\"/\\").find(c);
            if (place == std::string::npos)
                out += c;
            else
                (out += '\\') += "btnfr\"/\\"[place];
        }
        return out + "\"";
    }

    void send(const World& world, const std::string& list) {
        std::string all, first;
        for (const std::string& address : world.addresses) {
            all += (all.empty() ? "" : ",") + quoted(address);
            first = first.empty() ? quoted(address) : first;
        }
        if (number != 2147483647)
            ++number;
        const int carried = at_top ? 1 : number;
        at_top = number == 2147483647;
        const std::string name = host.empty() ? "" : "\"name\":" + quoted(host) + ",";
        const std::string text = "{\"request\":\"ws_dnsupdate\",\"seqno\":" + std::to_string(carried) + ",\"item\":{" +
                                 name + "\"ipv6s\":[" + all + "],\"ipv6\":" + first + ",\"httpsports\":[" + ports +
                                 "]}}";
        log(40, "send: " + text);
        trace.push_back(bytesLine(Function::callmsg, dns_handle, text));
        if (world.message_result != 0)
            log(10, "updateDomain errorcode " + std::to_string(world.message_result));
        sent_time = world.now;
        sent_value = list;
    }

    bool at_top = false;
};

class PublishModel : public PublishTest {
protected:
    PublishModel() {
        recording_rdb::set_observer([this](const Call& call) {
            ++made[static_cast<std::size_t>(call.function)];
            const bool message = call.function == Function::callmsg;
            trace.add(bytesLine(call.function, call.handle, message ? call.text : call.record));
        });
    }

    template <std::size_t N, class T>
    T any(const T (&of)[N]) {
        return of[random() % N];
    }
    bool onceIn(unsigned n) { return random() % n == 0; }

    void prepare(Model& model) {
        static const std::string hosts[] = {
            "host1", "a/b\\c\v\t", std::string(79, 'x'), std::string(80, 'y'), std::string(300, 'z'), ""};
        static const char* const port_lists[] = {"", "443", "443,8443,80"};
        run.hostname = model.host = any(hosts);
        model.ports = any(port_lists);
        parsePortList(model.ports, run.dnshttpsports);
        model.rdb_url = run.rdburl;
        model.dns_url = run.dnsurl;
        run.rdb_connected = run.dns_connected = 0;
        run.last_cycle_time = run.last_sent_time = 0;
        run.snapshot = {};
        run.last_put_value.clear();
        run.last_sent_value.clear();
        run.seqno = model.number = onceIn(3) ? INT32_MAX - 3 : 0;
        run.dns_handle = model.dns_handle = onceIn(8) ? -1 : 1;
        model.rdb_handle = run.rdb_handle;
    }

    void moveClock(time_t& now) {
        constexpr time_t moves[] = {0,   1,   5,   9,   10,  10, 10, 10,  11,  15,   60,   100,  590,
                                    599, 600, 601, 609, 610, -1, -9, -10, -11, -600, -599, 86400};
        constexpr time_t jumps[] = {0, -100000, 2147483647, 2147483648, 1LL << 40, 1'744'350'000};
        now = onceIn(60) ? any(jumps) : now + any(moves);
    }

    World changed(World world) {
        constexpr int codes[] = {0, 0, 0, 0, 1, -1, 60003};
        constexpr int classes[] = {2, 2, 2, 0, 1, 3, 255};
        constexpr int after_import[] = {-1, -1, 2, 0, 7};
        constexpr int events[] = {0, 0, 0, 0, 0, 60001, 60003, 60002};
        moveClock(world.now);
        world.listing_fails = onceIn(20);
        if (onceIn(4)) {
            world.addresses.clear();
            const unsigned count = onceIn(10) ? 60 : random() % 4;
            for (unsigned i = 0; i < count; ++i)
                world.addresses.push_back("2001:db8:aaaa:bbbb:cccc:dddd:eeee:" + std::string(any({"1", "2", "30"})));
        }
        world.get_result = any(codes);
        world.get_class = any(classes);
        for (int i = 0; i < 2; ++i) {
            world.import_result[i] = any(codes);
            world.import_class[i] = any(after_import);
        }
        world.put_result = any(codes);
        world.message_result = any(codes);
        world.event_in_put = any(events);
        return world;
    }

    std::size_t next(Function function) const { return made[static_cast<std::size_t>(function)]; }

    void apply(const World& world) {
        using recording_rdb::script_result;
        using recording_rdb::script_tag_class;
        clock = world.now;
        interfaces.fails = world.listing_fails;
        Lines entries = {"::1", "192.0.2.1", "fe80::1"};
        entries.insert(entries.end(), world.addresses.begin(), world.addresses.end());
        interfaces.set(entries);
        script_result(Function::tagget, next(Function::tagget), world.get_result);
        script_tag_class(Function::tagget, next(Function::tagget), world.get_class);
        for (std::size_t i = 0; i < 2; ++i) {
            script_result(Function::taginport, next(Function::taginport) + i, world.import_result[i]);
            script_tag_class(Function::taginport, next(Function::taginport) + i, world.import_class[i]);
        }
        script_result(Function::objputsnapshot, next(Function::objputsnapshot), world.put_result);
        script_event(Function::objputsnapshot, next(Function::objputsnapshot), world.event_in_put);
        script_result(Function::callmsg, next(Function::callmsg), world.message_result);
    }

    void compare(Model& model) {
        ASSERT_EQ(trace.take(), model.trace);
        model.trace.clear();
        ASSERT_EQ(run.rdb_connected, model.rdb_up ? 1U : 0U);
        ASSERT_EQ(run.dns_connected, model.dns_up ? 1U : 0U);
        ASSERT_EQ(run.last_cycle_time, model.cycle_time);
        ASSERT_EQ(run.last_sent_time, model.sent_time);
        ASSERT_EQ(run.snapshot.time, model.mark);
        ASSERT_EQ(run.last_put_value, model.put_value);
        ASSERT_EQ(run.last_sent_value, model.sent_value);
        ASSERT_EQ(run.seqno, model.number);
    }

    std::mt19937 random{600};
    std::size_t made[recording_rdb::function_count] = {};
};

TEST_F(PublishModel, AgreesWithTheCycleOver30000RandomSteps) {
    constexpr int events[] = {60001, 60001, 60003, 60002};
    for (int episode = 0; episode < 100; ++episode) {
        Model model;
        prepare(model);
        World world = {};
        world.now = start;
        for (int step = 0; step < 300; ++step) {
            SCOPED_TRACE(std::to_string(episode) + "/" + std::to_string(step));
            trace.take();
            if (onceIn(12)) {
                const int code = any(events);
                onRdbEvent(code, 0, &run);
                model.rdbEvent(code);
            }
            if (onceIn(12)) {
                const int code = any(events);
                onDnsEvent(code, 0, &run);
                model.dnsEvent(code);
            }
            world = changed(world);
            apply(world);
            run.publishOnce();
            model.pass(world);
            ASSERT_NO_FATAL_FAILURE(compare(model));
        }
    }
    //  Checks that the random steps reached all parts of the cycle.
    for (const Function function : {Function::tagget, Function::taginport, Function::objputsnapshot, Function::callmsg})
        EXPECT_GT(next(function), 1000U) << recording_rdb::name_of(function);
}

}  // namespace
