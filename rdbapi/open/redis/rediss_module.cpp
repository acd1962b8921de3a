//  The module of the back end rediss: the back end redis over TLS, for servers, clusters and Sentinels.
#include "module/guarded_backend.h"
#include "module/tls_advice.h"
#include "net/tls_stream.h"
#include "redis/advice.h"
#include "redis/backend.h"

namespace {

using namespace rdbopen;

BackendResult makeRedissBackend(const Url& url, const Credentials& credentials) {
    Url rest = url;
    Result<TlsSettings> settings = takeTlsOptions(rest);
    if (!settings.ok())
        return settings.status();
    if (Status failed = prepareTls(); !failed.ok())
        return failed;
    return makeRedisBackend(rest, credentials,
                            [settings = *settings] { return std::make_unique<TlsStream>(settings); });
}

void adviseOnRediss(const UrlUse& use, std::vector<Advice>& advice) {
    adviseOnTls(use, advice);
    adviseOnRedis(use, advice);
}

constexpr std::string_view tlsSchemes[] = {"rediss", "rediss+cluster", "rediss+sentinel"};

}  // namespace

RDBAPI_MODULE(rediss);
constinit const rdbopen::Module rdbapix64_rediss = describeModule<makeRedissBackend, adviseOnRediss>(tlsSchemes);
