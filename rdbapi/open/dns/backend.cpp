#include "dns/backend.h"

#include "dns/check.h"
#include "dns/holdings.h"
#include "dns/permission.h"
#include "dns/pointers.h"
#include "dns/primary.h"
#include "dns/records.h"
#include "dns/words.h"
#include "dns/zone_url.h"
#include "engine/clock.h"
#include "net/secret.h"
#include "net/server_addresses.h"
#include "net/tcp_stream.h"

#include <algorithm>
#include <functional>

namespace rdbopen {

namespace {

constexpr std::chrono::milliseconds openLimit{10000};
constexpr std::chrono::milliseconds checkLimit{10000};

class DnsBackend : public Backend, public DnsUpdateBackend, public Inspector {
public:
    DnsBackend(DnsZone zone, std::string keyName, std::string password, std::unique_ptr<Stream> stream)
        : zone_(std::move(zone)), keyName_(std::move(keyName)), password_(std::move(password)),
          stream_(std::move(stream)), servers_(zone_.servers), pointers_(zone_.reverseZones, zone_.ttl) {}

    std::string label() const override { return zone_.scheme + "://" + serversText(zone_.servers) + "/" + zone_.zone; }
    UpdateBackend* updates() noexcept override { return this; }
    Inspector* inspector() noexcept override { return this; }

    Status open(const Waiter& waiter) override;
    void close() noexcept override { waiter_ = nullptr; }

    std::chrono::milliseconds checkInterval() const noexcept override { return zone_.check; }
    bool checksArePreemptible() const noexcept override { return true; }
    Status checkRequest(std::string_view text) override;

    Status openToRead(const Waiter& waiter) override { return open(waiter); }
    Result<Holdings> held(const HostNames& host) override;
    Result<std::vector<std::string>> published(const std::vector<std::string>& addresses) override {
        return zone_.filter.apply(addresses);
    }
    Status examine(const HostNames& host, std::vector<Examination>& results) override;
    Status remove(std::vector<RemovalStep>& steps) override;

private:
    //  One operation at one address. share: the time at which the next address should be tried.
    using Attempt = std::function<Status(DnsExchange&, std::chrono::milliseconds share)>;

    Status lookUp(std::chrono::milliseconds& until);
    Status named(Status status) const;
    Status atServer(TsigKey key, std::chrono::milliseconds until, const Attempt& attempt);
    Status askZone(DnsExchange& exchange, std::chrono::milliseconds until) const;
    Result<std::string> ownerOf(const std::string& name, const std::vector<std::uint16_t>& ports) const;
    Result<std::vector<RecordSet>> setsFor(const DnsRequest& request) const;
    Status update(const DnsRequest& request) override;
    Status publish(DnsExchange& exchange, const DnsBytes& message, const std::vector<RecordSet>& sets,
                   std::chrono::milliseconds until);
    Status sendUpdate(DnsExchange& exchange, const DnsBytes& message, const std::vector<RecordSet>& sets,
                      std::chrono::milliseconds until) const;
    Status findAlias(DnsExchange& exchange, const std::vector<RecordSet>& sets, std::chrono::milliseconds until) const;
    Result<TsigKey> readKey() const;

    const DnsZone zone_;
    const std::string keyName_;
    const std::string password_;
    const std::unique_ptr<Stream> stream_;
    const Waiter* waiter_ = nullptr;  // null while closed
    std::vector<Server> servers_;     // of the url; if the url names none: the primary server that was found last
    ServerAddresses addresses_;
    Pointers pointers_;
    std::optional<ZoneHoldings> holdings_;  // what the last call of held has found
};

//  If the password is in a file, reads this file each time. So the secret can be changed while the service runs.
Result<TsigKey> DnsBackend::readKey() const {
    Result<std::string> secret = readSecret(password_);
    if (!secret.ok())
        return secret.status();
    if (!isTsigSecret(*secret))
        return backendFailed("the password is not the secret of a key in base64");
    return TsigKey{keyName_, zone_.algorithm, std::move(*secret)};
}

Status DnsBackend::open(const Waiter& waiter) {
    waiter_ = &waiter;
    Result<TsigKey> key = readKey();
    if (!key.ok())
        return key.status();
    //  After any failure the next address is tried, which is safe because open changes nothing at a server.
    std::chrono::milliseconds until = monotonicNow() + openLimit;
    if (Status failed = lookUp(until); !failed.ok())
        return failed;
    return atServer(std::move(*key), until, [this](DnsExchange& exchange, auto share) {
        Status status = askZone(exchange, exchangeEnd(share));
        if (!status.ok())
            status = {errorBackendFailed, std::move(status.reason), true};
        return status;
    });
}

//  Resolves the names of the servers. If the url names no server, first finds the primary server. This is repeated at
//  each call, because another server may have become the primary. If the search fails, uses the primary server that was
//  found last; fails if none was found before.
Status DnsBackend::lookUp(std::chrono::milliseconds& until) {
    if (zone_.servers.empty()) {
        Result<std::string> primary = findPrimary(zone_.zone, until);
        if (primary.ok())
            servers_ = {{std::move(*primary), zone_.port}};
        else if (servers_.empty())
            return primary.status();
    }
    return named(addresses_.lookUp(servers_, until));
}

//  If the url names no server, adds the name of the primary server to the reason of a failure.
Status DnsBackend::named(Status status) const {
    return zone_.servers.empty() && !status.reason.empty() ? failedTo(serverText(servers_.front()), std::move(status))
                                                           : status;
}

//  Tries the addresses of the servers in turn: connects, then calls attempt. Ends at the first status of attempt whose
//  member failover is false.
Status DnsBackend::atServer(TsigKey key, std::chrono::milliseconds until, const Attempt& attempt) {
    DnsExchange exchange(*stream_, *waiter_, std::move(key));
    return named(addresses_.tryEach(
        *waiter_, until,
        [&](const ServerAddress& address, auto share) { return exchange.connect(address, exchangeEnd(share)); },
        [&](auto share) { return attempt(exchange, share); }));
}

Status DnsBackend::askZone(DnsExchange& exchange, std::chrono::milliseconds until) const {
    const Answer answer = exchange.ask(queryMessage(newId(), zone_.zone, typeSoa), until);
    if (!answer.ok())
        return answer.status();
    if (const unsigned rcode = rcodeOf(**answer); rcode != rcodeNoError)
        return refusedWith(rcode);
    if (!ldns_pkt_aa(answer->get()) || !answerHas(**answer, zone_.zone, typeSoa))
        return wrongServer("the server is not authoritative for a zone " + zone_.zone);
    return {};
}

//  Returns the full name of the host in the zone. Fails with errorBadRequest if the zone cannot contain the host, or if
//  the name of one of the host's records would be invalid.
Result<std::string> DnsBackend::ownerOf(const std::string& name, const std::vector<std::uint16_t>& ports) const {
    Result<std::string> full = nameInZone(name, zone_.zone);
    if (!full.ok())
        return full;
    const std::vector<RecordSet> sets = recordSets(*full, {}, ports);
    if (!std::all_of(sets.begin(), sets.end(), [](const RecordSet& set) { return isDnsName(set.owner); })) {
        const char* problem = isDnsName(name) ? " is too long for its records" : " is not a host name";
        return Status{errorBadRequest, "the name " + name + problem};
    }
    return full;
}

Result<std::vector<RecordSet>> DnsBackend::setsFor(const DnsRequest& request) const {
    const Result<std::string> full = ownerOf(request.name, request.httpsPorts);
    if (!full.ok())
        return full.status();
    const Result<std::vector<std::string>> published = zone_.filter.apply(request.addresses);
    if (!published.ok())
        return published.status();
    return recordSets(*full, ipv6Addresses(*published), request.httpsPorts);
}

Status DnsBackend::update(const DnsRequest& request) {
    const Result<std::vector<RecordSet>> sets = setsFor(request);
    if (!sets.ok())
        return sets.status();
    Result<TsigKey> key = readKey();
    if (!key.ok())
        return key.status();
    const Result<DnsBytes> message = updateMessage(newId(), zone_.zone, zone_.ttl, *sets);
    if (!message.ok())
        return message.status();
    if (message->size() + signatureLength(*key) > maxDnsMessageSize)
        return updateTooLong();
    std::chrono::milliseconds until = monotonicNow() + exchangeLimit;
    if (Status failed = lookUp(until); !failed.ok())
        return failed;
    return atServer(std::move(*key), until,
                    [&](DnsExchange& exchange, auto) { return publish(exchange, *message, *sets, until); });
}

//  The PTR records are updated first, while the server still has the old addresses. If a reverse zone refuses its
//  update, the addresses are updated all the same, because they matter more. If the update of the addresses succeeds,
//  the refusal is the result, and the worker retries the request. failover is set to false: the refusal of a reverse
//  zone does not show that another server is responsible for the zone of the addresses.
Status DnsBackend::publish(DnsExchange& exchange, const DnsBytes& message, const std::vector<RecordSet>& sets,
                           std::chrono::milliseconds until) {
    if (!pointers_.enabled())
        return sendUpdate(exchange, message, sets, until);
    if (Status failed = pointers_.findLeaving(exchange, sets.front(), until); !failed.ok())
        return failed;
    Status pointers = pointers_.update(exchange, sets.front(), until);
    if (pointers.code == errorBackendFailed)
        return pointers;
    pointers.failover = false;
    Status status = sendUpdate(exchange, message, sets, until);
    return status.ok() ? pointers : status;
}

Status DnsBackend::sendUpdate(DnsExchange& exchange, const DnsBytes& message, const std::vector<RecordSet>& sets,
                              std::chrono::milliseconds until) const {
    const Answer answer = exchange.ask(message, until);
    if (!answer.ok())
        return answer.status();
    const unsigned rcode = rcodeOf(**answer);
    if (rcode == rcodeYxRrset)
        return findAlias(exchange, sets, until);
    return rcode == rcodeNoError ? Status{} : refusedWith(rcode);
}

//  Returns a failure whose reason contains the name that is an alias. The answer YXRRSET does not contain this name, so
//  each name is checked. If no alias is found, the reason contains only the meaning of YXRRSET.
Status DnsBackend::findAlias(DnsExchange& exchange, const std::vector<RecordSet>& sets,
                             std::chrono::milliseconds until) const {
    for (const std::string& owner : ownersOfRecords(sets))
        if (Status found = checkAlias(exchange, zone_.zone, owner, until); found.code == errorServerRefused)
            return found;
    return serverRefused(rcodeWords(rcodeYxRrset));
}

Status DnsBackend::checkRequest(std::string_view text) {
    DnsRequest request;
    if (!parseDnsRequest(text, request).ok())
        return {};
    const Result<std::vector<RecordSet>> sets = setsFor(request);
    if (!sets.ok())
        return sets.status().code == errorBadRequest ? Status{} : sets.status();
    Result<TsigKey> key = readKey();
    if (!key.ok())
        return key.status();
    //  A queued call must be able to interrupt the check, but getaddrinfo cannot be interrupted. So the check does not
    //  resolve the names of the servers again.
    const std::chrono::milliseconds until = monotonicNow() + checkLimit;
    const ZoneCheck check(zone_.zone, *sets);
    DnsExchange exchange(*stream_, *waiter_, std::move(*key));
    Status status = addresses_.tryEach(
        *waiter_, until,
        [&](const ServerAddress& address, auto share) {
            return zone_.encrypted() ? exchange.connect(address, exchangeEnd(share))
                                     : exchange.reach(address, check.first(), exchangeEnd(share));
        },
        [&](auto) {
            Status held = check.run(exchange, until);
            return held.ok() ? pointers_.check(exchange, sets->front(), until) : held;
        });
    //  Another server may have become the primary. After errorBackendFailed, the worker opens the back end again, and
    //  open finds the primary server again.
    if (zone_.servers.empty() && status.failover)
        status.code = errorBackendFailed;
    return named(std::move(status));
}

Result<Holdings> DnsBackend::held(const HostNames& host) {
    const Result<std::string> full = ownerOf(host.name, host.httpsPorts);
    if (!full.ok())
        return full.status();
    Result<TsigKey> key = readKey();
    if (!key.ok())
        return key.status();
    std::chrono::milliseconds until = monotonicNow() + checkLimit;
    if (Status failed = lookUp(until); !failed.ok())
        return failed;
    Status status = atServer(std::move(*key), until, [&](DnsExchange& exchange, auto) {
        return holdings_.emplace(zone_.zone, *full, host.httpsPorts, zone_.reverseZones).find(exchange, until);
    });
    return status.ok() ? Result<Holdings>(holdings_->holdings()) : status;
}

Status DnsBackend::examine(const HostNames& host, std::vector<Examination>& results) {
    const Result<std::string> full = ownerOf(host.name, host.httpsPorts);
    if (!full.ok())
        return full.status();
    Result<TsigKey> key = readKey();
    if (!key.ok())
        return key.status();
    const ZonePermission permission(zone_, *full, host.httpsPorts);
    std::chrono::milliseconds until = monotonicNow() + checkLimit;
    if (Status failed = lookUp(until); !failed.ok())
        return failed;
    return atServer(std::move(*key), until, [&](DnsExchange& exchange, auto) {
        results.clear();
        return permission.ask(exchange, until, results);
    });
}

Status DnsBackend::remove(std::vector<RemovalStep>& steps) {
    Result<TsigKey> key = readKey();
    std::chrono::milliseconds until = monotonicNow() + checkLimit;
    Status status = key.ok() ? lookUp(until) : key.status();
    if (status.ok())
        status = atServer(std::move(*key), until,
                          [&](DnsExchange& exchange, auto) { return holdings_->remove(exchange, until); });
    steps = holdings_->steps(status);
    return status;
}

}  // namespace

BackendResult makeDnsBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Stream> stream) {
    Result<DnsZone> zone = parseDnsZone(url);
    if (!zone.ok())
        return zone.status();
    std::string keyName = lowerCase(credentials.user);
    if (keyName.ends_with('.'))
        keyName.pop_back();
    if (!isDnsName(keyName))
        return Status{errorBadUrl, "the user is not the name of a key"};
    return BackendResult(
        std::make_unique<DnsBackend>(std::move(*zone), std::move(keyName), credentials.password, std::move(stream)));
}

BackendResult makePlainDnsBackend(const Url& url, const Credentials& credentials) {
    return makeDnsBackend(url, credentials, std::make_unique<TcpStream>());
}

}  // namespace rdbopen
