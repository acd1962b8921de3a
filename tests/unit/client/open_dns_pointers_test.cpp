//  The option `ptr` of the back end dns, with a server that applies the updates of a reverse zone.
#include "dns/pointers.h"
#include "dns/words.h"
#include "open_dns_support.h"

#include <gtest/gtest.h>
#include <set>

namespace {

using namespace opentest;
using namespace rdbopen;

const std::string reverse = "8.b.d.0.1.0.0.2.ip6.arpa";
const std::string host = "host1.example.org";

//  Returns the address 2001:db8::LAST.
DnsBytes addressOf(unsigned last) {
    DnsBytes address = fromHex("20010db8000000000000000000000000");
    address[15] = static_cast<std::uint8_t>(last);
    return address;
}

DnsBytes targetOf(const std::string& name) {
    DnsBytes target;
    putDnsName(target, name);
    return target;
}

//  A server with the addresses of the host and the PTR records of one reverse zone.
class ReverseServer {
public:
    //  Returns the PTR records as "LAST>TARGET": last digit of the address, and first 5 characters of the target.
    std::set<std::string> pointers() {
        const std::lock_guard lock(mutex_);
        std::set<std::string> found;
        for (const auto& [name, target] : pointers_)
            found.insert(name.substr(0, 1) + ">" + std::string(target.begin() + 1, target.end() - 1).substr(0, 5));
        return found;
    }
    void add(unsigned last, const std::string& target) {
        const std::lock_guard lock(mutex_);
        pointers_.insert({pointerName(addressOf(last)), targetOf(target)});
    }
    void remove(unsigned last) {
        const std::lock_guard lock(mutex_);
        std::erase_if(pointers_, [&](const auto& one) { return one.first == pointerName(addressOf(last)); });
    }

    std::atomic<unsigned> reverseCode{0};
    std::atomic<unsigned> forwardCode{0};
    std::atomic<bool> forges{false};  // answers to updates of the reverse zone are not signed
    std::atomic<int> deletions{0};    // number of PTR records that updates were to delete
    std::atomic<int> reverseUpdates{0};
    std::atomic<int> forwardUpdates{0};

private:
    Reaction react(const SeenRequest& seen) {
        const std::lock_guard lock(mutex_);
        if (seen.opcode == opcodeUpdate)
            return seen.owner == "example.org" ? forward(seen) : backward(seen);
        std::vector<AnswerRecord> records;
        if (seen.type == typeSoa)
            records.push_back(soaOf("example.org"));
        if (seen.type == typeAaaa)
            for (const DnsBytes& address : addresses_)
                records.push_back({host, typeAaaa, address});
        if (seen.type == typeHttps || seen.type == typePtr)
            for (const auto& [name, target] : pointers_)
                if (name == seen.owner)
                    records.push_back({name, typePtr, target});
        return answer(seen, 0, records);
    }
    Reaction forward(const SeenRequest& seen) {
        ++forwardUpdates;
        if (forwardCode == 0)
            apply(seen, [this](const std::string&, const DnsBytes& data, bool add, bool all) {
                if (all)
                    addresses_.clear();
                else if (add)
                    addresses_.push_back(data);
            });
        return answer(seen, forwardCode);
    }
    Reaction backward(const SeenRequest& seen) {
        ++reverseUpdates;
        EXPECT_EQ(seen.owner, reverse);
        if (forges)
            return {framed(plainAnswer(seen.id, seen.opcode, 0)), Reaction::Then::goOn};
        if (reverseCode == 0)
            apply(seen, [this](const std::string& name, const DnsBytes& data, bool add, bool all) {
                EXPECT_FALSE(all);
                deletions += add ? 0 : 1;
                if (add)
                    pointers_.insert({name, data});
                else
                    pointers_.erase({name, data});
            });
        return answer(seen, reverseCode);
    }
    template <class Change>
    static void apply(const SeenRequest& seen, Change change) {
        const Packet packet = std::move(*parseMessage(seen.wire));
        const ldns_rr_list* const updates = ldns_pkt_authority(packet.get());
        for (std::size_t i = 0; i < ldns_rr_list_rr_count(updates); ++i) {
            const ldns_rr* const record = ldns_rr_list_rr(updates, i);
            const std::unique_ptr<char, void (*)(void*)> text(ldns_rdf2str(ldns_rr_owner(record)), std::free);
            std::string name = text.get();
            name.pop_back();
            DnsBytes data;
            for (std::size_t part = 0; part < ldns_rr_rd_count(record); ++part) {
                const ldns_rdf* const field = ldns_rr_rdf(record, part);
                data.insert(data.end(), ldns_rdf_data(field), ldns_rdf_data(field) + ldns_rdf_size(field));
            }
            if (ldns_rr_get_type(record) == LDNS_RR_TYPE_AAAA || ldns_rr_get_type(record) == LDNS_RR_TYPE_PTR)
                change(name, data, ldns_rr_get_class(record) == LDNS_RR_CLASS_IN,
                       ldns_rr_get_class(record) == LDNS_RR_CLASS_ANY);
        }
    }
    static Reaction answer(const SeenRequest& seen, unsigned code, const std::vector<AnswerRecord>& records = {}) {
        return {framed(genuineAnswer(seen, code, records)), Reaction::Then::goOn};
    }

    std::mutex mutex_;
    std::vector<DnsBytes> addresses_;
    std::set<std::pair<std::string, DnsBytes>> pointers_;

public:
    DnsServer server{[this](const SeenRequest& seen) { return react(seen); }};
};

std::string requestWith(const std::string& addresses) {
    return R"({"request":"ws_dnsupdate","seqno":7,"item":{"name":"host1","ipv6s":[)" + addresses + "]}}";
}

const std::string oneAndTwo = requestWith(R"("2001:db8::1","2001:db8::2","fd01:db8::3")");
const std::string twoAndThree = requestWith(R"("2001:db8::2","2001:db8::3")");

using Set = std::set<std::string>;

class DnsPointers : public testing::Test {
protected:
    DnsPointers() { start(); }

    //  A new back end, as after a restart of the service.
    void start() {
        backend = backendFor(server.server.url("/example.org?ptr=" + reverse), {"key1", testSecret});
        EXPECT_EQ(backend->open(plainWaiter).reason, "");
    }
    Status update(const std::string& request) {
        std::string reply;
        const Status status = backend->updates()->apply(request, reply);
        EXPECT_EQ(reply.find("\"code\":0") != std::string::npos, status.ok());
        return status;
    }
    Status check(const std::string& request) { return backend->updates()->checkRequest(request); }

    ReverseServer server;
    std::unique_ptr<Backend> backend;
};

TEST_F(DnsPointers, TheAddressesInTheZoneGetRecords) {
    EXPECT_EQ(update(oneAndTwo).reason, "");
    EXPECT_EQ(server.pointers(), (Set{"1>host1", "2>host1"}));
    EXPECT_EQ(server.reverseUpdates, 1);
}

TEST_F(DnsPointers, AnAddressThatStaysKeepsItsRecord) {
    EXPECT_EQ(update(oneAndTwo).reason, "");
    EXPECT_EQ(update(oneAndTwo).reason, "");
    EXPECT_EQ(server.deletions, 0);
    EXPECT_EQ(update(twoAndThree).reason, "");
    EXPECT_EQ(server.deletions, 1);
}

TEST_F(DnsPointers, AnAddressThatLeavesLosesItsRecord) {
    EXPECT_EQ(update(oneAndTwo).reason, "");
    EXPECT_EQ(update(twoAndThree).reason, "");
    EXPECT_EQ(server.pointers(), (Set{"2>host1", "3>host1"}));
    EXPECT_EQ(update(requestWith("")).reason, "");
    EXPECT_EQ(server.pointers(), Set());
}

TEST_F(DnsPointers, AnAddressThatLeavesLosesItsRecordAfterARestart) {
    EXPECT_EQ(update(oneAndTwo).reason, "");
    start();
    EXPECT_EQ(update(twoAndThree).reason, "");
    EXPECT_EQ(server.pointers(), (Set{"2>host1", "3>host1"}));
}

TEST_F(DnsPointers, RecordsThatPointElsewhereAreNeverChanged) {
    server.add(1, "other.example.org");
    server.add(4, "other.example.org");
    EXPECT_EQ(update(oneAndTwo).reason, "");
    EXPECT_EQ(server.pointers(), (Set{"1>host1", "1>other", "2>host1", "4>other"}));
    EXPECT_EQ(update(twoAndThree).reason, "");
    EXPECT_EQ(server.pointers(), (Set{"1>other", "2>host1", "3>host1", "4>other"}));
}

TEST_F(DnsPointers, AZoneWithoutAnyOfTheAddressesGetsNoUpdate) {
    EXPECT_EQ(update(requestWith(R"("fd01:db8::3")")).reason, "");
    EXPECT_EQ(server.reverseUpdates, 0);
}

TEST_F(DnsPointers, ARefusalIsTheResultAndTheAddressesAreUpdatedAllTheSame) {
    EXPECT_EQ(update(oneAndTwo).reason, "");
    server.reverseCode = rcodeRefused;
    const Status status = update(twoAndThree);
    EXPECT_EQ(status.code, errorServerRefused);
    EXPECT_EQ(status.reason, "PTR records in " + reverse + ": " + rcodeWords(rcodeRefused));
    EXPECT_FALSE(status.failover);
    EXPECT_EQ(server.forwardUpdates, 2);
    EXPECT_EQ(server.pointers(), (Set{"1>host1", "2>host1"}));
    server.reverseCode = 0;
    EXPECT_EQ(update(twoAndThree).reason, "");  // the server no longer has the removed address
    EXPECT_EQ(server.pointers(), (Set{"2>host1", "3>host1"}));
}

TEST_F(DnsPointers, AfterAFailureTheAddressesAreNotReplaced) {
    EXPECT_EQ(update(oneAndTwo).reason, "");
    server.forges = true;
    EXPECT_EQ(update(twoAndThree).code, errorBackendFailed);
    EXPECT_EQ(server.forwardUpdates, 1);
    server.forges = false;
    start();
    EXPECT_EQ(update(twoAndThree).reason, "");
    EXPECT_EQ(server.pointers(), (Set{"2>host1", "3>host1"}));
}

TEST_F(DnsPointers, ARefusalOfTheAddressesIsReported) {
    server.forwardCode = rcodeRefused;
    EXPECT_EQ(update(oneAndTwo).reason, rcodeWords(rcodeRefused));
}

TEST_F(DnsPointers, ACheckDetectsAMissingRecord) {
    EXPECT_EQ(update(oneAndTwo).reason, "");
    server.add(1, "other.example.org");
    EXPECT_EQ(check(oneAndTwo).code, errorNone);
    server.remove(1);
    server.add(1, "other.example.org");
    EXPECT_EQ(check(oneAndTwo).code, errorNotHeld);
}

}  // namespace
