//  The module of the back end dns-tls, scheme dns+tls: the back end dns over TLS.
#include "dns/advice.h"
#include "dns/backend.h"
#include "module/guarded_backend.h"
#include "module/tls_advice.h"
#include "net/tls_stream.h"

namespace {

using namespace rdbopen;

constexpr const char* dnsOverTls = "dot";  // name of the protocol in ALPN, RFC 9103 section 7.1

BackendResult makeDnsTlsBackend(const Url& url, const Credentials& credentials) {
    Url rest = url;
    Result<TlsSettings> settings = takeTlsOptions(rest);
    if (!settings.ok())
        return settings.status();
    settings->protocol = dnsOverTls;
    if (Status failed = prepareTls(); !failed.ok())
        return failed;
    return makeDnsBackend(rest, credentials, std::make_unique<TlsStream>(std::move(*settings)));
}

void advise(const UrlUse& use, std::vector<Advice>& advice) {
    Url rest = use.url;
    if (!takeTlsOptions(rest).ok())
        return;
    adviseOnZone({rest, use.credentials, use.urlName, use.passwordName, use.hostname, use.httpsPorts}, advice);
    adviseOnTls(use, advice);
}

constexpr std::string_view tlsSchemes[] = {"dns+tls"};

}  // namespace

RDBAPI_MODULE(dns_tls);
constinit const rdbopen::Module rdbapix64_dns_tls = describeModule<makeDnsTlsBackend, advise>(tlsSchemes);
