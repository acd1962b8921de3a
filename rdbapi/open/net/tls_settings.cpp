#include "net/tls_settings.h"

#include "net/host_name.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>

namespace rdbopen {

namespace {

constexpr struct {
    std::string_view name;
    std::string TlsSettings::*value;
} tlsOptions[] = {
    {"ca", &TlsSettings::authorities},
    {"cert", &TlsSettings::certificate},
    {"key", &TlsSettings::key},
    {"name", &TlsSettings::name},
};

bool isIpv6Address(const std::string& text) {
    in6_addr address{};
    return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool canBeInCertificate(const std::string& name) {
    return isDnsName(name) || isIpv6Address(name);
}

Status check(const TlsSettings& settings, const std::vector<Server>& servers) {
    for (const std::string& path : {settings.authorities, settings.certificate, settings.key})
        if (!path.empty() && path.front() != '/')
            return malformedUrl("ca, cert and key are absolute paths");
    if (settings.certificate.empty() != settings.key.empty())
        return malformedUrl("cert and key belong together");
    const bool possible =
        settings.name.empty()
            ? std::all_of(servers.begin(), servers.end(),
                          [](const Server& server) { return canBeInCertificate(nameInCertificate(server.host)); })
            : canBeInCertificate(settings.name);
    return possible ? Status{} : malformedUrl("name is not the name or the address of a server");
}

}  // namespace

//  A certificate has names without a final dot and addresses without a zone (RFC 6125 section 6.4, RFC 5280 section
//  4.2.1.6).
std::string nameInCertificate(const std::string& host) {
    if (host.find(':') != std::string::npos)
        return host.substr(0, host.find('%'));
    return host.ends_with('.') ? host.substr(0, host.size() - 1) : host;
}

Result<TlsSettings> takeTlsOptions(Url& url) {
    constexpr std::uint16_t anyPort = 1;
    //  A url without servers does not fail here: the back end decides whether it needs servers.
    const Result<std::vector<Server>> servers =
        url.authority.empty() ? std::vector<Server>() : parseServers(url.authority, anyPort);
    if (!servers.ok())
        return servers.status();
    TlsSettings settings;
    for (const auto& [name, value] : tlsOptions) {
        const auto is = [&name = name](const UrlOption& option) { return option.name == name; };
        const auto found = std::find_if(url.options.begin(), url.options.end(), is);
        if (found == url.options.end())
            continue;
        settings.*value = found->value;
        url.options.erase(found);
        if ((settings.*value).empty() || std::any_of(url.options.begin(), url.options.end(), is))
            return malformedUrl("the option " + std::string(name) + " is empty or given twice");
    }
    if (Status failed = check(settings, *servers); !failed.ok())
        return failed;
    return settings;
}

}  // namespace rdbopen
