//  The text of one DNS update request. Peers are RapidJSON, fmt (which escapes nothing), a standard string with appends,
//  and memcpy of the finished text. All but memcpy start from the service's own item and write into a new buffer.
#include "cases.h"
#include "dnsupdate.h"

#ifdef WITH_FMT
#include <fmt/format.h>
#endif
#ifdef WITH_RAPIDJSON
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#endif

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace bench {

namespace {

constexpr std::int32_t seqno = 12345;
constexpr std::size_t counts_of_addresses[] = {2, 32, 1000};

std::unique_ptr<DnsUpdateItem> filled(std::size_t addresses) {
    auto item = std::make_unique<DnsUpdateItem>();
    item->name.assign("host1.example.net");
    std::string list;
    for (std::size_t i = 0; i < addresses; ++i)
        list += "2001:db8:1234:5678:9abc:def0:1234:" + std::to_string(1000 + i) + ',';
    splitAddressList(list, item->ipv6s);
    item->httpsports.push_back(443);
    item->httpsports.push_back(8443);
    return item;
}

//  Returns the item with this number of addresses. The item is created at the first call and kept.
const DnsUpdateItem& item_of(std::size_t addresses) {
    static std::map<std::size_t, std::unique_ptr<DnsUpdateItem>> items;
    std::unique_ptr<DnsUpdateItem>& item = items[addresses];
    if (item == nullptr)
        item = filled(addresses);
    return *item;
}

void by_olk(const DnsUpdateItem& item) {
    olk::string text;
    text.reserve(dns_request_reserve);
    writeDnsUpdateRequest(seqno, item, text);
    keep(text.data());
}

std::string finished(const DnsUpdateItem& item) {
    olk::string text;
    writeDnsUpdateRequest(seqno, item, text);
    return std::string(text.data(), text.size());
}

const std::string& finished_text_of(std::size_t addresses) {
    static std::map<std::size_t, std::string> texts;
    std::string& text = texts[addresses];
    if (text.empty())
        text = finished(item_of(addresses));
    return text;
}

//  Ends the program if a peer writes a different text, because its cost would not be comparable.
void check(const DnsUpdateItem& item, const std::string& text) {
    if (text == finished(item))
        return;
    std::fprintf(stderr, "the texts differ: %s\n", text.c_str());
    std::abort();
}

//  Returns the character that follows the backslash in the escape of c, or 0 if c needs no escape.
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

void append_all(const DnsUpdateItem& item, std::string& out) {
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

void by_std(const DnsUpdateItem& item) {
    std::string text;
    text.reserve(dns_request_reserve);
    append_all(item, text);
    keep(text.data());
}

#ifdef WITH_FMT
void append_all(const DnsUpdateItem& item, fmt::memory_buffer& buffer) {
    const auto out = std::back_inserter(buffer);
    const auto view = [](const olk::string& s) { return std::string_view(s.data(), s.size()); };
    fmt::format_to(out, R"({{"request":"ws_dnsupdate","seqno":{},"item":{{"name":"{}","ipv6s":[)", seqno,
                   view(item.name));
    for (std::size_t i = 0; i < item.ipv6s.size(); ++i)
        fmt::format_to(out, R"({}"{}")", i == 0 ? "" : ",", view(item.ipv6s[i]));
    fmt::format_to(out, R"(],"ipv6":"{}","httpsports":[)", view(item.ipv6s[0]));
    for (std::size_t i = 0; i < item.httpsports.size(); ++i)
        fmt::format_to(out, "{}{}", i == 0 ? "" : ",", item.httpsports[i]);
    fmt::format_to(out, "]}}}}");
}

void by_fmt(const DnsUpdateItem& item) {
    fmt::memory_buffer buffer;
    append_all(item, buffer);
    keep(buffer.data());
}
#endif

#ifdef WITH_RAPIDJSON
using json_writer = rapidjson::Writer<rapidjson::StringBuffer>;

void write_string(const olk::string& value, json_writer& out) {
    out.String(value.data(), value.size());
}

void write_all(const DnsUpdateItem& item, rapidjson::StringBuffer& buffer) {
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

void by_rapidjson(const DnsUpdateItem& item) {
    rapidjson::StringBuffer buffer(nullptr, dns_request_reserve);
    write_all(item, buffer);
    keep(buffer.GetString());
}
#endif

using writer = void (*)(const DnsUpdateItem&);

void add_writer(const std::string& who, std::size_t addresses, writer write) {
    add("request/" + who + '/' + std::to_string(addresses), 100, [addresses, write](std::size_t times) {
        const DnsUpdateItem& item = item_of(addresses);
        for (; times-- > 0;)
            write(item);
    });
}

//  Adds the case that copies the finished text. The buffer of the copy exists before the measurement.
void add_copy(std::size_t addresses) {
    add("request/memcpy/" + std::to_string(addresses), 100,
        [addresses, to = std::vector<char>(1 << 16)](std::size_t times) mutable {
            const std::string& text = finished_text_of(addresses);
            for (; times-- > 0;) {
                std::size_t length = text.size();
                forget(length);
                std::memcpy(to.data(), text.data(), length);
                keep(to.data());
            }
        });
}

void check_peers() {
    const auto item = filled(2);
    std::string text;
    append_all(*item, text);
    check(*item, text);
#ifdef WITH_FMT
    fmt::memory_buffer formatted;
    append_all(*item, formatted);
    check(*item, fmt::to_string(formatted));
#endif
#ifdef WITH_RAPIDJSON
    rapidjson::StringBuffer buffer;
    write_all(*item, buffer);
    check(*item, buffer.GetString());
#endif
}

const bool added = [] {
    check_peers();
    for (const std::size_t addresses : counts_of_addresses) {
        add_writer("olk", addresses, by_olk);
        add_writer("std", addresses, by_std);
#ifdef WITH_FMT
        add_writer("fmt", addresses, by_fmt);
#endif
#ifdef WITH_RAPIDJSON
        add_writer("rapidjson", addresses, by_rapidjson);
#endif
        add_copy(addresses);
    }
    return true;
}();

}  // namespace

}  // namespace bench
