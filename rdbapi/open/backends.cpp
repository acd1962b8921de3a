#include "backends.h"

#include "dryrun/backend.h"
#include "net/url.h"

#ifdef RDBOPEN_WITH_DNS
#include "dns/backend.h"
#endif
#ifdef RDBOPEN_WITH_HOSTS
#include "hosts/backend.h"
#endif
#ifdef RDBOPEN_WITH_REDIS
#include "redis/backend.h"
#endif
#ifdef RDBOPEN_WITH_SQLITE
#include "sqlite/backend.h"
#endif

namespace rdbopen {

namespace {

struct Scheme {
    std::string_view name;
    int (*make)(const Url& url, const Credentials& credentials, std::unique_ptr<Backend>& backend, std::string& reason);
};

constexpr Scheme schemes[] = {
    {"log", makeLogBackend},
#ifdef RDBOPEN_WITH_SQLITE
    {"sqlite", makeSqliteBackend},
#endif
#ifdef RDBOPEN_WITH_HOSTS
    {"hosts", makeHostsBackend},
#endif
#ifdef RDBOPEN_WITH_REDIS
    {"redis", makeRedisBackend},
#endif
#ifdef RDBOPEN_WITH_DNS
    {"dns", makeDnsBackend},
#endif
};

}  // namespace

int makeBackend(std::string_view url_text, const Credentials& credentials, std::unique_ptr<Backend>& backend,
                std::string& reason) {
    backend.reset();
    Url url;
    if (!parseUrl(url_text, url, reason))
        return errorBadUrl;
    for (const Scheme& scheme : schemes)
        if (scheme.name == url.scheme)
            return scheme.make(url, credentials, backend, reason);
    reason = "unknown url scheme";  // not quoted: a password may have strayed into the url
    return errorUnknownScheme;
}

}  // namespace rdbopen
