#include "dns/answer.h"

#include <algorithm>

namespace rdbopen {

namespace {

struct FreeName {
    void operator()(ldns_rdf* name) const { ldns_rdf_deep_free(name); }
};
using Name = std::unique_ptr<ldns_rdf, FreeName>;

//  Returns the record's data in wire format, for any record type.
DnsBytes dataOf(const ldns_rr& record) {
    DnsBytes data;
    for (std::size_t i = 0; i < ldns_rr_rd_count(&record); ++i) {
        const ldns_rdf* const part = ldns_rr_rdf(&record, i);
        const std::uint8_t* const bytes = ldns_rdf_data(part);
        data.insert(data.end(), bytes, bytes + ldns_rdf_size(part));
    }
    return data;
}

bool isOf(const ldns_rr& record, const Name& owner, std::uint16_t type) {
    return ldns_rr_get_type(&record) == static_cast<ldns_rr_type>(type) &&
           ldns_rr_get_class(&record) == LDNS_RR_CLASS_IN &&
           ldns_dname_compare(ldns_rr_owner(&record), owner.get()) == 0;
}

std::vector<DnsBytes> recordsOf(const ldns_rr_list* section, const std::string& owner, std::uint16_t type) {
    std::vector<DnsBytes> found;
    const Name name(ldns_dname_new_frm_str((owner + ".").c_str()));
    for (std::size_t i = 0; name && i < ldns_rr_list_rr_count(section); ++i) {
        const ldns_rr* const record = ldns_rr_list_rr(section, i);
        if (isOf(*record, name, type))
            found.push_back(dataOf(*record));
    }
    return found;
}

bool holds(const ldns_rr_list* section, const RecordSet& set) {
    std::vector<DnsBytes> held = recordsOf(section, set.owner, set.type);
    std::vector<DnsBytes> expected = set.records;
    std::sort(held.begin(), held.end());
    std::sort(expected.begin(), expected.end());
    return held == expected;
}

}  // namespace

Result<Packet> parseMessage(std::span<const std::uint8_t> message) {
    ldns_pkt* packet = nullptr;
    if (ldns_wire2pkt(&packet, message.data(), message.size()) != LDNS_STATUS_OK)
        return backendFailed("the answer is malformed");
    return Packet(packet);
}

unsigned rcodeOf(const ldns_pkt& packet) {
    return static_cast<unsigned>(ldns_pkt_edns_extended_rcode(&packet)) << 4 | ldns_pkt_get_rcode(&packet);
}

std::vector<DnsBytes> answerRecords(const ldns_pkt& packet, const std::string& owner, std::uint16_t type) {
    return recordsOf(ldns_pkt_answer(&packet), owner, type);
}

const ldns_rr* findRecord(const ldns_pkt& packet, const std::string& owner, std::uint16_t type) {
    const Name name(ldns_dname_new_frm_str((owner + ".").c_str()));
    const ldns_rr_list* const answer = ldns_pkt_answer(&packet);
    for (std::size_t i = 0; name && i < ldns_rr_list_rr_count(answer); ++i)
        if (isOf(*ldns_rr_list_rr(answer, i), name, type))
            return ldns_rr_list_rr(answer, i);
    return nullptr;
}

bool answerHas(const ldns_pkt& packet, const std::string& owner, std::uint16_t type) {
    return findRecord(packet, owner, type) != nullptr;
}

bool answerHolds(const ldns_pkt& packet, const RecordSet& set) {
    return holds(ldns_pkt_answer(&packet), set);
}

bool additionalHolds(const ldns_pkt& packet, const RecordSet& set) {
    return !set.records.empty() && holds(ldns_pkt_additional(&packet), set);
}

}  // namespace rdbopen
