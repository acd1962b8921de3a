#include "dns/message.h"

#include <algorithm>
#include <map>

namespace rdbopen {

namespace {

constexpr std::uint16_t classIn = 1;
constexpr std::uint16_t classNone = 254;
constexpr std::uint16_t classAny = 255;
constexpr std::uint16_t typeOpt = 41;  // RFC 6891; the class field of this record is the maximum length of the answer

//  Sections of a message (RFC 2136 section 2.2). Each value is the offset of the section's record count in the header.
enum class Section : std::size_t { prerequisites = 6, updates = 8, additional = 10 };

class Writer {
public:
    Writer(std::uint16_t id, unsigned opcode) {
        putDns16(bytes_, id);
        putDns16(bytes_, opcode << 11);
        for (const unsigned count : {1U, 0U, 0U, 0U})
            putDns16(bytes_, count);
    }

    void question(const std::string& owner, std::uint16_t type) { front(owner, type, classIn); }

    void record(Section section, const std::string& owner, std::uint16_t type, std::uint16_t recordClass,
                std::uint32_t ttl, const DnsBytes& data) {
        front(owner, type, recordClass);
        putDns16(bytes_, ttl >> 16);
        putDns16(bytes_, ttl & 0xffff);
        putDns16(bytes_, data.size());
        bytes_.insert(bytes_.end(), data.begin(), data.end());
        count(section);
    }

    //  RFC 2136 section 2.4.3: class NONE, ttl 0 and no data mean the prerequisite that the zone has no such set.
    void absence(const std::string& owner, std::uint16_t type) {
        record(Section::prerequisites, owner, type, classNone, 0, {});
    }

    bool fits() const { return bytes_.size() <= maxDnsMessageSize; }

    DnsBytes take() { return std::move(bytes_); }

private:
    void count(Section section) {
        const auto at = static_cast<std::size_t>(section);
        if (++bytes_[at + 1] == 0)
            ++bytes_[at];
    }

    void front(const std::string& owner, std::uint16_t type, std::uint16_t recordClass) {
        name(owner);
        putDns16(bytes_, type);
        putDns16(bytes_, recordClass);
    }

    //  Writes the labels before the longest suffix that the first 16384 bytes of the message already contain, then a
    //  pointer to that suffix. If they contain no suffix of the name, writes all labels and a zero byte.
    void name(std::string_view rest) {
        constexpr std::size_t pointer = 0xc000;  // plus 14 bits of offset
        while (!rest.empty()) {
            const auto [known, added] = ends_.try_emplace(std::string(rest), bytes_.size());
            if (!added)
                return putDns16(bytes_, pointer | known->second);
            if (bytes_.size() >= 0x4000)
                ends_.erase(known);
            const std::size_t length = std::min(rest.find('.'), rest.size());
            bytes_.push_back(static_cast<std::uint8_t>(length));
            bytes_.insert(bytes_.end(), rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(length));
            rest.remove_prefix(std::min(length + 1, rest.size()));
        }
        bytes_.push_back(0);
    }

    DnsBytes bytes_;
    std::map<std::string, std::size_t> ends_;  // suffixes in the message and their offsets, which fit into 14 bits
};

}  // namespace

void putDns16(DnsBytes& bytes, std::size_t number) {
    bytes.push_back(static_cast<std::uint8_t>(number >> 8));
    bytes.push_back(static_cast<std::uint8_t>(number));
}

void putDnsName(DnsBytes& bytes, std::string_view name) {
    while (!name.empty()) {
        const std::size_t length = std::min(name.find('.'), name.size());
        bytes.push_back(static_cast<std::uint8_t>(length));
        bytes.insert(bytes.end(), name.begin(), name.begin() + static_cast<std::ptrdiff_t>(length));
        name.remove_prefix(std::min(length + 1, name.size()));
    }
    bytes.push_back(0);
}

std::vector<std::string> ownersOfRecords(const std::vector<RecordSet>& sets) {
    std::vector<std::string> owners;
    for (const RecordSet& set : sets)
        if (!set.records.empty() && (owners.empty() || owners.back() != set.owner))
            owners.push_back(set.owner);
    return owners;
}

Status updateTooLong() {
    return {errorBadRequest, "the records do not fit into one update of 65535 bytes"};
}

Result<DnsBytes> updateMessage(std::uint16_t id, const std::string& zone, std::uint32_t ttl,
                               const std::vector<RecordSet>& sets) {
    Writer writer(id, opcodeUpdate);
    writer.question(zone, typeSoa);
    for (const std::string& owner : ownersOfRecords(sets))
        writer.absence(owner, typeCname);
    //  RFC 2136 section 2.5.2: class ANY, ttl 0 and no data delete the set.
    for (const RecordSet& set : sets)
        writer.record(Section::updates, set.owner, set.type, classAny, 0, {});
    for (const RecordSet& set : sets)
        for (const DnsBytes& data : set.records) {
            if (!writer.fits())
                return updateTooLong();
            writer.record(Section::updates, set.owner, set.type, classIn, ttl, data);
        }
    if (!writer.fits())
        return updateTooLong();
    return writer.take();
}

Result<DnsBytes> pointerMessage(std::uint16_t id, const std::string& zone, std::uint32_t ttl, const DnsBytes& target,
                                const std::vector<std::string>& removed, const std::vector<std::string>& added) {
    Writer writer(id, opcodeUpdate);
    writer.question(zone, typeSoa);
    for (const std::string& name : added)
        writer.absence(name, typeCname);
    //  RFC 2136 section 2.5.4: class NONE and ttl 0 delete the record with this data.
    for (const std::string& name : removed)
        writer.record(Section::updates, name, typePtr, classNone, 0, target);
    for (const std::string& name : added) {
        if (!writer.fits())
            return updateTooLong();
        writer.record(Section::updates, name, typePtr, classIn, ttl, target);
    }
    if (!writer.fits())
        return updateTooLong();
    return writer.take();
}

Result<DnsBytes> removalMessage(std::uint16_t id, const std::string& zone, const std::vector<RecordSet>& held,
                                const std::vector<RecordSet>& removed) {
    Writer writer(id, opcodeUpdate);
    writer.question(zone, typeSoa);
    for (const RecordSet& set : held)
        for (const DnsBytes& data : set.records)
            if (writer.fits())
                writer.record(Section::prerequisites, set.owner, set.type, classIn, 0, data);
    //  PowerDNS does not find some of the records that an update deletes singly (RFC 2136 section 2.5.4: class NONE).
    //  So a set of which no record remains is deleted as a whole (section 2.5.2).
    for (std::size_t i = 0; i < removed.size(); ++i) {
        const RecordSet& set = removed[i];
        if (set.records.size() == held[i].records.size())
            writer.record(Section::updates, set.owner, set.type, classAny, 0, {});
        else
            for (const DnsBytes& data : set.records)
                if (writer.fits())
                    writer.record(Section::updates, set.owner, set.type, classNone, 0, data);
    }
    if (!writer.fits())
        return updateTooLong();
    return writer.take();
}

DnsBytes questionMessage(std::uint16_t id, const std::string& zone, const std::vector<RecordSet>& sets) {
    Writer writer(id, opcodeUpdate);
    writer.question(zone, typeSoa);
    writer.absence(zone, typeSoa);
    for (const RecordSet& set : sets)
        for (const DnsBytes& data : set.records)
            writer.record(Section::updates, set.owner, set.type, classNone, 0, data);
    return writer.take();
}

DnsBytes absenceMessage(std::uint16_t id, const std::string& zone, const std::string& owner, std::uint16_t type) {
    Writer writer(id, opcodeUpdate);
    writer.question(zone, typeSoa);
    writer.absence(owner, type);
    return writer.take();
}

DnsBytes queryMessage(std::uint16_t id, const std::string& owner, std::uint16_t type) {
    Writer writer(id, opcodeQuery);
    writer.question(owner, type);
    writer.record(Section::additional, {}, typeOpt, maxDatagramSize, 0, {});
    return writer.take();
}

}  // namespace rdbopen
