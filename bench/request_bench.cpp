//  The text of one DNS update request with the given number of addresses, written into an empty buffer, beside the same
//  text by RapidJSON and by appending to a standard string. Every writer starts from the item as the service holds it.
#include "dnsupdate.h"

#include <benchmark/benchmark.h>

#ifdef WITH_RAPIDJSON
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#endif

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

constexpr std::int32_t seqno = 12345;

void fill(DnsUpdateItem& item, std::int64_t addresses) {
    item.name.assign("host1.example.net");
    std::string list;
    for (std::int64_t i = 0; i < addresses; ++i)
        list += "2001:db8:1234:5678:9abc:def0:1234:" + std::to_string(1000 + i) + ',';
    splitAddressList(list, item.ipv6s);
    item.httpsports.push_back(443);
    item.httpsports.push_back(8443);
}

std::string by_olk(const DnsUpdateItem& item) {
    olk::string text;
    text.reserve(dns_request_reserve);
    writeDnsUpdateRequest(seqno, item, text);
    return std::string(text.data(), text.size());
}

//  The character behind the backslash, or 0.
char escape_of(char c) {
    switch (c) {
    case '\b':
        return 'b';
    case '\t':
        return 't';
    case '\n':
        return 'n';
    case '\f':
        return 'f';
    case '\r':
        return 'r';
    case '"':
    case '/':
    case '\\':
        return c;
    default:
        return 0;
    }
}

void append_value(const olk::string& value, std::string& out) {
    out += '"';
    for (const char* c = value.data(); c != value.data() + value.size(); ++c) {
        const char escape = escape_of(*c);
        if (escape != 0) {
            out += '\\';
            out += escape;
        } else {
            out += *c;
        }
    }
    out += '"';
}

void by_std(const DnsUpdateItem& item, std::string& out) {
    out += "{\"request\":\"ws_dnsupdate\",\"seqno\":";
    out += std::to_string(seqno);
    out += ",\"item\":{\"name\":";
    append_value(item.name, out);
    out += ",\"ipv6s\":[";
    for (size_t i = 0; i < item.ipv6s.size(); ++i) {
        if (i != 0)
            out += ',';
        append_value(item.ipv6s[i], out);
    }
    out += "],\"ipv6\":";
    append_value(item.ipv6s[0], out);
    out += ",\"httpsports\":[";
    for (size_t i = 0; i < item.httpsports.size(); ++i) {
        if (i != 0)
            out += ',';
        out += std::to_string(item.httpsports[i]);
    }
    out += "]}}";
}

void request_olk(benchmark::State& state) {
    DnsUpdateItem item;
    fill(item, state.range(0));
    for (auto _ : state) {
        olk::string text;
        text.reserve(dns_request_reserve);
        writeDnsUpdateRequest(seqno, item, text);
        benchmark::DoNotOptimize(text.data());
    }
}

void request_std(benchmark::State& state) {
    DnsUpdateItem item;
    fill(item, state.range(0));
    std::string check;
    by_std(item, check);
    if (check != by_olk(item))
        return state.SkipWithError("the texts differ");
    for (auto _ : state) {
        std::string text;
        text.reserve(dns_request_reserve);
        by_std(item, text);
        benchmark::DoNotOptimize(text.data());
    }
}

BENCHMARK(request_olk)->Name("request/olk")->Arg(1)->Arg(4)->Arg(32);
BENCHMARK(request_std)->Name("request/std")->Arg(1)->Arg(4)->Arg(32);

#ifdef WITH_RAPIDJSON
using json_writer = rapidjson::Writer<rapidjson::StringBuffer>;

void write_string(const olk::string& value, json_writer& out) {
    out.String(value.data(), value.size());
}

void by_rapidjson(const DnsUpdateItem& item, rapidjson::StringBuffer& buffer) {
    json_writer out(buffer);
    out.StartObject();
    out.Key("request");
    out.String("ws_dnsupdate");
    out.Key("seqno");
    out.Int(seqno);
    out.Key("item");
    out.StartObject();
    out.Key("name");
    write_string(item.name, out);
    out.Key("ipv6s");
    out.StartArray();
    for (const olk::string& address : item.ipv6s)
        write_string(address, out);
    out.EndArray();
    out.Key("ipv6");
    write_string(item.ipv6s[0], out);
    out.Key("httpsports");
    out.StartArray();
    for (std::uint32_t port : item.httpsports)
        out.Uint(port);
    out.EndArray();
    out.EndObject();
    out.EndObject();
}

void request_rapidjson(benchmark::State& state) {
    DnsUpdateItem item;
    fill(item, state.range(0));
    rapidjson::StringBuffer check;
    by_rapidjson(item, check);
    if (check.GetString() != by_olk(item))
        return state.SkipWithError("the texts differ");
    for (auto _ : state) {
        rapidjson::StringBuffer buffer(nullptr, dns_request_reserve);
        by_rapidjson(item, buffer);
        benchmark::DoNotOptimize(buffer.GetString());
    }
}

BENCHMARK(request_rapidjson)->Name("request/rapidjson")->Arg(1)->Arg(4)->Arg(32);
#endif

}  // namespace
