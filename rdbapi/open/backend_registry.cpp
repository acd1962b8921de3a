#include "backend_registry.h"

#include "url.h"

#ifdef RDBOPEN_WITH_HOSTS
#include "backend_hosts.h"
#endif
#ifdef RDBOPEN_WITH_SQLITE
#include "backend_sqlite.h"
#endif

namespace rdbopen {

namespace {

struct Scheme {
    std::string_view name;
    std::unique_ptr<Backend> (*make)(const std::string& path);
};

//  The embedded back ends: each serves one file on this machine, named by the url's path.
constexpr Scheme schemes[] = {
#ifdef RDBOPEN_WITH_SQLITE
    {"sqlite", makeSqliteBackend},
#endif
#ifdef RDBOPEN_WITH_HOSTS
    {"hosts", makeHostsBackend},
#endif
    {"", nullptr},
};

bool namesOneFile(const Url& url) {
    return url.authority.empty() && url.path.size() > 1 && url.path.front() == '/' && url.path.back() != '/';
}

}  // namespace

int makeBackend(std::string_view url_text, std::unique_ptr<Backend>& backend, std::string& reason) {
    backend.reset();
    Url url;
    if (!parseUrl(url_text, url, reason))
        return errorBadUrl;
    for (const Scheme& scheme : schemes) {
        if (scheme.make == nullptr || scheme.name != url.scheme)
            continue;
        if (!namesOneFile(url)) {
            reason = "malformed url: " + url.scheme + " needs the absolute path of a file, as in " + url.scheme +
                     ":///var/lib/addrpubd/file";
            return errorBadUrl;
        }
        backend = scheme.make(url.path);
        return errorNone;
    }
    reason = "unknown url scheme " + url.scheme;
    return errorUnknownScheme;
}

}  // namespace rdbopen
