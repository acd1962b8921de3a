#include "dnsupdate.h"

#include "olk_json.h"

#include <utility>

namespace {

//  Appends the member list_name with all addresses and the member first_name with the first address. For an empty list
//  it appends nothing.
void writeAddresses(std::uint32_t* members, const char* list_name, const char* first_name,
                    const olk::vector_<olk::string>& addresses, olk::string& out) {
    if (addresses.empty())
        return;
    olk::writeStringArrayMember(members, list_name, addresses, out);
    olk::writeStringMember(members, first_name, addresses[0], out);
}

void writePorts(std::uint32_t* members, const olk::vector_<std::uint32_t>& ports, olk::string& out) {
    olk::writeSeparator(members, out);
    out.append("\"httpsports\":[");
    for (std::size_t i = 0; i < ports.size(); ++i) {
        if (i != 0)
            out.push_back(',');
        olk::writeDecimal(ports[i], out);
    }
    out.push_back(']');
}

//  Appends the item as an object. The protocol fixes the order of its members.
void writeItem(const DnsUpdateItem& item, olk::string& out) {
    std::uint32_t members = 0;
    out.push_back('{');
    olk::writeStringMember(&members, "name", item.name, out);
    writeAddresses(&members, "ipv4s", "ipv4", item.ipv4s, out);
    writeAddresses(&members, "ipv6s", "ipv6", item.ipv6s, out);
    if (item.timestamp > 0) {
        olk::writeSeparator(&members, out);
        out.append("\"timestamp\":\"");
        olk::writeIsoTime(item.timestamp, out);
        out.push_back('"');
    }
    writePorts(&members, item.httpsports, out);
    out.push_back('}');
}

}  // namespace

void splitAddressList(const std::string& list, olk::vector_<olk::string>& addresses) {
    std::size_t position = 0;
    while (position < list.size()) {
        olk::string piece;
        olk::read_until(position, ',', list.data(), list.size(), piece);
        if (!piece.empty())
            addresses.push_back(std::move(piece));
    }
}

void writeDnsUpdateRequest(std::int32_t seqno, const DnsUpdateItem& item, olk::string& out) {
    out.append("{\"request\":\"ws_dnsupdate\",\"seqno\":");
    olk::writeDecimal(seqno, out);
    out.append(",\"item\":");
    writeItem(item, out);
    out.push_back('}');
}
