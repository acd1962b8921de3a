#include "dns/backend.h"

#include "dns/exchange.h"
#include "dns/records.h"
#include "dns/words.h"
#include "engine/clock.h"
#include "net/secret.h"
#include "net/server_addresses.h"

#include <algorithm>
#include <functional>
#include <openssl/crypto.h>
#include <stdlib.h>
#include <system_error>

namespace rdbopen {

namespace {

constexpr std::chrono::milliseconds exchangeLimit{5000};
constexpr std::chrono::milliseconds openLimit{10000};
constexpr std::chrono::milliseconds checkLimit{10000};

class DnsBackend : public Backend {
public:
    DnsBackend(DnsZone zone, std::string key_name, std::string password)
        : zone_(std::move(zone)), keyName_(std::move(key_name)), password_(std::move(password)) {}

    std::string label() const override { return "dns://" + serverText(zone_.server) + "/" + zone_.zone; }
    bool serves(Service service) const noexcept override { return service == Service::messages; }

    Outcome open(const Waiter& waiter) override;
    void close() noexcept override { waiter_ = nullptr; }
    Outcome message(std::string_view text, std::string& reply) override;
    std::string refusal(std::string_view text, int code) override;

    std::chrono::milliseconds checkInterval() const noexcept override { return zone_.check; }
    bool checksGiveWay() const noexcept override { return true; }
    Outcome checkMessage(std::string_view text) override;

private:
    //  share: the time at which the next address should have its turn.
    using Attempt = std::function<Outcome(DnsExchange&, std::chrono::milliseconds share)>;

    Outcome lookUpServer(std::chrono::milliseconds& until);
    Outcome atServer(TsigKey key, std::chrono::milliseconds until, const Attempt& attempt);
    Outcome askZone(DnsExchange& exchange, std::chrono::milliseconds until) const;
    Outcome setsFor(const DnsRequest& request, std::vector<RecordSet>& sets) const;
    Outcome update(const DnsRequest& request);
    Outcome sendUpdate(DnsExchange& exchange, const DnsBytes& message, const std::vector<RecordSet>& sets,
                       std::chrono::milliseconds until) const;
    Outcome findAlias(DnsExchange& exchange, const std::vector<RecordSet>& sets, std::chrono::milliseconds until) const;
    Outcome checkSet(DnsExchange& exchange, const RecordSet& set, std::chrono::milliseconds until) const;
    Outcome checkAlias(DnsExchange& exchange, const std::string& owner, std::chrono::milliseconds until) const;
    Outcome checkAbsence(DnsExchange& exchange, const RecordSet& set, std::chrono::milliseconds until) const;
    std::string takeKey(TsigKey& key) const;

    const DnsZone zone_;
    const std::string keyName_;
    const std::string password_;
    const Waiter* waiter_ = nullptr;  // null while it is closed
    ServerAddresses addresses_;
};

//  The failure that an answer is, or errorNone for one whose every byte counts.
Outcome outcomeOf(const Answer& answer) {
    if (answer.trust == Trust::whole)
        return {};
    return {answer.trust == Trust::none ? errorBackendFailed : errorServerRefused, answer.reason, answer.elsewhere};
}

//  The refusal that a code other than 0 is.
Outcome refusedWith(unsigned rcode) {
    return {errorServerRefused, rcodeWords(rcode), isWrongServer(rcode)};
}

Outcome wrongServer(std::string reason) {
    return {errorServerRefused, std::move(reason), true};
}

//  When one exchange has to end that is a part of something with the limit until.
std::chrono::milliseconds exchangeEnd(std::chrono::milliseconds until) {
    return std::min(until, monotonicNow() + exchangeLimit);
}

std::uint16_t newId() {
    return static_cast<std::uint16_t>(arc4random());
}

//  The password is read each time, so that a key can be changed while the service runs.
std::string DnsBackend::takeKey(TsigKey& key) const {
    key.name = keyName_;
    key.algorithm = zone_.algorithm;
    std::string failed = readSecret(password_, key.secret);
    if (failed.empty() && !isTsigSecret(key.secret))
        return "the password is not the secret of a key in base64";
    return failed;
}

Outcome DnsBackend::open(const Waiter& waiter) {
    waiter_ = &waiter;
    TsigKey key;
    if (std::string failed = takeKey(key); !failed.empty())
        return backendFailed(std::move(failed));
    //  Whatever fails here, the next address may do it: nothing has been changed yet.
    std::chrono::milliseconds until = monotonicNow() + openLimit;
    if (Outcome failed = lookUpServer(until); failed.code != errorNone)
        return failed;
    return atServer(std::move(key), until, [this](DnsExchange& exchange, auto share) {
        Outcome outcome = askZone(exchange, exchangeEnd(share));
        if (outcome.code != errorNone)
            outcome = {errorBackendFailed, std::move(outcome.reason), true};
        return outcome;
    });
}

//  A check goes without: it gives way to a call at once, and a look-up cannot be interrupted.
Outcome DnsBackend::lookUpServer(std::chrono::milliseconds& until) {
    std::string failed = addresses_.lookUp(zone_.server, until);
    return failed.empty() ? Outcome{} : backendFailed(std::move(failed));
}

//  Connects to the server's addresses in turn, until one of them is not the wrong server. Each exchange has a connection of
//  its own.
Outcome DnsBackend::atServer(TsigKey key, std::chrono::milliseconds until, const Attempt& attempt) {
    DnsExchange exchange(*waiter_, std::move(key));
    return addresses_.tryEach(
        *waiter_, until,
        [&](const ServerAddress& address, auto share) { return exchange.connect(address, exchangeEnd(share)); },
        [&](auto share) { return attempt(exchange, share); });
}

Outcome DnsBackend::askZone(DnsExchange& exchange, std::chrono::milliseconds until) const {
    const Answer answer = exchange.ask(queryMessage(newId(), zone_.zone, typeSoa), until);
    if (answer.trust != Trust::whole)
        return outcomeOf(answer);
    if (const unsigned rcode = rcodeOf(*answer.packet); rcode != rcodeNoError)
        return refusedWith(rcode);
    if (!ldns_pkt_aa(answer.packet.get()) || !answerHas(*answer.packet, zone_.zone, typeSoa))
        return wrongServer("the server is not authoritative for a zone " + zone_.zone);
    return {};
}

Outcome DnsBackend::setsFor(const DnsRequest& request, std::vector<RecordSet>& sets) const {
    std::string full;
    if (!nameInZone(request.name, zone_.zone, full))
        return {errorBadRequest, "the zone " + zone_.zone + " does not hold the name " + request.name};
    LocalFlags flags;
    if (zone_.skipTemporary || zone_.skipDeprecated)
        if (const int error = readLocalFlags(flags); error != 0)
            return backendFailed("the flags of the addresses cannot be read: " +
                                 std::generic_category().message(error));
    sets = recordSets(full, publishedAddresses(request.addresses, zone_, flags), request.httpsPorts);
    if (!std::all_of(sets.begin(), sets.end(), [](const RecordSet& set) { return isDnsName(set.owner); }))
        return {errorBadRequest, "the name " + request.name + " is too long for its records"};
    return {};
}

Outcome DnsBackend::update(const DnsRequest& request) {
    std::vector<RecordSet> sets;
    if (Outcome failed = setsFor(request, sets); failed.code != errorNone)
        return failed;
    TsigKey key;
    if (std::string failed = takeKey(key); !failed.empty())
        return backendFailed(std::move(failed));
    const DnsBytes message = updateMessage(newId(), zone_.zone, zone_.ttl, sets);
    if (message.empty() || message.size() + signatureLength(key) > maxDnsMessageSize)
        return {errorBadRequest, "the records do not fit into one update of 65535 bytes"};
    std::chrono::milliseconds until = monotonicNow() + exchangeLimit;
    if (Outcome failed = lookUpServer(until); failed.code != errorNone)
        return failed;
    return atServer(std::move(key), until,
                    [&](DnsExchange& exchange, auto) { return sendUpdate(exchange, message, sets, until); });
}

Outcome DnsBackend::sendUpdate(DnsExchange& exchange, const DnsBytes& message, const std::vector<RecordSet>& sets,
                               std::chrono::milliseconds until) const {
    const Answer answer = exchange.ask(message, until);
    if (answer.trust != Trust::whole)
        return outcomeOf(answer);
    const unsigned rcode = rcodeOf(*answer.packet);
    if (rcode == rcodeYxRrset)
        return findAlias(exchange, sets, until);
    return rcode == rcodeNoError ? Outcome{} : refusedWith(rcode);
}

//  A server whose answer is YXRRSET does not say at which name the update has met an alias.
Outcome DnsBackend::findAlias(DnsExchange& exchange, const std::vector<RecordSet>& sets,
                              std::chrono::milliseconds until) const {
    for (const std::string& owner : ownersOfRecords(sets))
        if (Outcome found = checkAlias(exchange, owner, until); found.code == errorServerRefused)
            return found;
    return serverRefused(rcodeWords(rcodeYxRrset));
}

Outcome DnsBackend::message(std::string_view text, std::string& reply) {
    DnsRequest request;
    const std::string refused = parseDnsRequest(text, request);
    Outcome outcome = refused.empty() ? update(request) : Outcome{errorBadRequest, refused};
    reply = dnsReply(request.seqno, outcome.code, outcome.code == errorNone ? "ok" : outcome.reason);
    return outcome;
}

std::string DnsBackend::refusal(std::string_view text, int code) {
    DnsRequest request;
    parseDnsRequest(text, request);
    return dnsReply(request.seqno, code, "the server is not connected");
}

//  An alias at a name keeps every other record away from it. It does no harm to a set that is to be empty.
Outcome DnsBackend::checkSet(DnsExchange& exchange, const RecordSet& set, std::chrono::milliseconds until) const {
    const Answer answer = exchange.ask(queryMessage(newId(), set.owner, set.type), exchangeEnd(until));
    if (answer.trust != Trust::whole)
        return outcomeOf(answer);
    const unsigned rcode = rcodeOf(*answer.packet);
    if (rcode != rcodeNoError && rcode != rcodeNxDomain)
        return refusedWith(rcode);
    if (!ldns_pkt_aa(answer.packet.get()))
        return wrongServer("the server is not authoritative for " + set.owner);
    if (!set.records.empty() && answerHas(*answer.packet, set.owner, typeCname))
        return checkAlias(exchange, set.owner, until);
    if (answerHolds(*answer.packet, set))
        return {};
    return set.records.empty() ? checkAbsence(exchange, set, until) : Outcome{errorNotHeld, {}};
}

//  The alias of a wildcard looks in an answer like one that stands at the name (RFC 4592), but gives way to records that
//  are added there. The condition of an update looks at the zone itself.
Outcome DnsBackend::checkAlias(DnsExchange& exchange, const std::string& owner, std::chrono::milliseconds until) const {
    const Answer answer = exchange.ask(absenceMessage(newId(), zone_.zone, owner, typeCname), exchangeEnd(until));
    if (answer.trust != Trust::whole)
        return outcomeOf(answer);
    return rcodeOf(*answer.packet) == rcodeYxRrset ? serverRefused(aliasWords(owner)) : Outcome{errorNotHeld, {}};
}

//  Records that a wildcard stands in for look like held ones, too. A server that does not answer to a condition gets the
//  update again, which does no harm.
Outcome DnsBackend::checkAbsence(DnsExchange& exchange, const RecordSet& set, std::chrono::milliseconds until) const {
    const Answer answer = exchange.ask(absenceMessage(newId(), zone_.zone, set.owner, set.type), exchangeEnd(until));
    if (answer.trust != Trust::whole)
        return outcomeOf(answer);
    return rcodeOf(*answer.packet) == rcodeNoError ? Outcome{} : Outcome{errorNotHeld, {}};
}

Outcome DnsBackend::checkMessage(std::string_view text) {
    DnsRequest request;
    std::vector<RecordSet> sets;
    if (!parseDnsRequest(text, request).empty())
        return {};
    if (Outcome failed = setsFor(request, sets); failed.code != errorNone)
        return failed.code == errorBadRequest ? Outcome{} : failed;
    TsigKey key;
    if (std::string failed = takeKey(key); !failed.empty())
        return backendFailed(std::move(failed));
    const std::chrono::milliseconds until = monotonicNow() + checkLimit;
    return atServer(std::move(key), until, [&](DnsExchange& exchange, auto) {
        for (const RecordSet& set : sets)
            if (Outcome outcome = checkSet(exchange, set, until); outcome.code != errorNone)
                return outcome;
        return Outcome{};
    });
}

}  // namespace

int makeDnsBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Backend>& backend,
                   std::string& reason) {
    DnsZone zone;
    if (!parseDnsZone(url, zone, reason))
        return errorBadUrl;
    std::string key_name = lowerCase(credentials.user);
    if (key_name.ends_with('.'))
        key_name.pop_back();
    if (!isDnsName(key_name)) {
        reason = "the user is not the name of a key";
        return errorBadUrl;
    }
    //  Signatures are made with this library. Its clean-up at exit would take it away from a thread that still signs, and
    //  its configuration (OPENSSL_CONF or openssl.cnf) could load code of whoever started the program, or forbid the
    //  algorithms.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT | OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    backend = std::make_unique<DnsBackend>(std::move(zone), std::move(key_name), credentials.password);
    return errorNone;
}

}  // namespace rdbopen
