#include "dyndns2/backend.h"

#include "dyndns2/answer.h"
#include "dyndns2/https_client.h"
#include "dyndns2/provider_url.h"
#include "engine/clock.h"
#include "net/secret.h"
#include "net/tls_context.h"
#include "request/dns_request.h"

namespace rdbopen {

namespace {

constexpr std::chrono::milliseconds exchangeLimit{15000};

//  Providers delete a name that gets no update for about 30 days, and block a client that often sends unchanged
//  addresses.
constexpr std::chrono::hours confirmAfter{25 * 24};

//  The documents of the protocol require this pause after the answers 911 and dnserr. The back end pauses as long after
//  every other answer that answer.h calls postponed.
constexpr std::chrono::minutes faultPause{30};

class Dyndns2Backend : public Backend, public DnsUpdateBackend, public Inspector {
public:
    Dyndns2Backend(Provider provider, Credentials credentials)
        : provider_(std::move(provider)), credentials_(std::move(credentials)) {}

    std::string label() const override { return "dyndns2+https://" + serverText(provider_.server) + provider_.path; }
    UpdateBackend* updates() noexcept override { return this; }
    Inspector* inspector() noexcept override { return this; }

    Status open(const Waiter& waiter) override;
    void close() noexcept override { waiter_ = nullptr; }

    Status openToRead(const Waiter& waiter) override;
    Result<Holdings> held(const HostNames& host) override;
    Result<std::vector<std::string>> published(const std::vector<std::string>& addresses) override;
    Status examine(const HostNames& host, std::vector<Examination>& results) override;
    Status remove(std::vector<RemovalStep>&) override { return {}; }

private:
    Status update(const DnsRequest& request) override;
    Status send(const std::string& query, const std::string& password);
    Status resultOf(const ProviderAnswer& answer, const std::string& query, const std::string& password);
    std::string queryOf(const std::string& name, const std::vector<std::string>& addresses) const;
    HttpsRequest requestFor(const std::string& query, const std::string& password) const;

    //  An answer of the provider. After it, nothing is sent until the password changes or the time `until` is reached.
    struct Refusal {
        std::string password;
        std::chrono::milliseconds until;
        std::string reason;
    };

    const Provider provider_;
    const Credentials credentials_;
    const Waiter* waiter_ = nullptr;  // null while closed
    std::optional<Refusal> refusal_;
    std::string accepted_;                     // query of the last request, if the provider has accepted it, or empty
    std::chrono::milliseconds acceptedAt_{0};  // monotonicNow() at the last acceptance
};

HttpsRequest Dyndns2Backend::requestFor(const std::string& query, const std::string& password) const {
    return {provider_.server, provider_.path, query, provider_.authorities, credentials_.user, password};
}

//  Connects for a test, but sends no request, because a provider counts requests.
Status Dyndns2Backend::open(const Waiter& waiter) {
    waiter_ = &waiter;
    const Result<std::string> password = readSecret(credentials_.password);
    if (!password.ok())
        return password.status();
    return testHttps(requestFor({}, *password), waiter, monotonicNow() + exchangeLimit);
}

//  The characters of names and addresses need no percent-encoding (RFC 3986 section 3.4).
std::string Dyndns2Backend::queryOf(const std::string& name, const std::vector<std::string>& addresses) const {
    std::string query = "hostname=" + name + "&" + provider_.parameter + "=" + addresses.front();
    if (provider_.allAddresses)
        for (std::size_t i = 1; i < addresses.size(); ++i)
            query += "," + addresses[i];
    return query;
}

//  Fails if there is no address to send: for a request without an address, the provider would store the address from
//  which the request comes.
Status Dyndns2Backend::update(const DnsRequest& request) {
    const Result<std::vector<std::string>> published = provider_.filter.apply(request.addresses);
    if (!published.ok())
        return published.status();
    if (published->empty())
        return serverRefused("the host has no address to send; the provider keeps the last ones");
    const Result<std::string> password = readSecret(credentials_.password);
    if (!password.ok())
        return password.status();
    const std::string query = queryOf(request.name, *published);
    const auto now = monotonicNow();
    if (refusal_ && refusal_->password == *password && now < refusal_->until)
        return serverRefused(refusal_->reason);
    if (query == accepted_ && now - acceptedAt_ < confirmAfter)
        return {};
    return send(query, *password);
}

Status Dyndns2Backend::send(const std::string& query, const std::string& password) {
    accepted_.clear();  // the provider may carry out a request whose answer is lost
    const Result<HttpsAnswer> answer =
        getByHttps(requestFor(query, password), *waiter_, monotonicNow() + exchangeLimit);
    if (!answer.ok())
        return answer.status();
    return resultOf(readProviderAnswer(answer->status, answer->body), query, password);
}

Status Dyndns2Backend::resultOf(const ProviderAnswer& answer, const std::string& query, const std::string& password) {
    const auto now = monotonicNow();
    refusal_.reset();
    switch (answer.kind) {
    case ProviderAnswer::Kind::accepted:
        accepted_ = query;
        acceptedAt_ = now;
        return {};
    case ProviderAnswer::Kind::postponed:
        refusal_ = {password, now + faultPause, answer.reason + "; nothing is sent for 30 minutes"};
        break;
    case ProviderAnswer::Kind::forbidden:
        refusal_ = {password, std::chrono::milliseconds::max(),
                    answer.reason + "; nothing is sent until the password or a setting changes"};
        break;
    }
    return serverRefused(refusal_->reason);
}

Status Dyndns2Backend::openToRead(const Waiter& waiter) {
    waiter_ = &waiter;
    return {};
}

Result<Holdings> Dyndns2Backend::held(const HostNames& host) {
    return Holdings{
        host.name,
        {},
        {},
        {"the protocol dyndns2 has no request that shows or deletes a name: do this in the account at the provider"}};
}

Result<std::vector<std::string>> Dyndns2Backend::published(const std::vector<std::string>& addresses) {
    Result<std::vector<std::string>> passed = provider_.filter.apply(addresses);
    if (passed.ok() && !provider_.allAddresses && passed->size() > 1)
        passed->resize(1);
    return passed;
}

//  Only an update would show whether user and password are right, and the provider counts updates.
Status Dyndns2Backend::examine(const HostNames&, std::vector<Examination>& results) {
    results.push_back({"connect to the provider (user and password are not tested)", open(*waiter_)});
    return {};
}

}  // namespace

BackendResult makeDyndns2Backend(const Url& url, const Credentials& credentials) {
    Result<Provider> provider = parseProvider(url);
    if (!provider.ok())
        return provider.status();
    if (Status failed = prepareTls(); !failed.ok())
        return failed;
    if (Status failed = prepareHttps(); !failed.ok())
        return failed;
    return BackendResult(std::make_unique<Dyndns2Backend>(std::move(*provider), credentials));
}

}  // namespace rdbopen
