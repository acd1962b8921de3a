#include "dyndns2/provider_url.h"

#include <algorithm>

namespace rdbopen {

namespace {

constexpr std::uint16_t httpsPort = 443;

Status takeAddresses(const std::string& value, Provider& provider) {
    if (value != "first" && value != "all")
        return malformedUrl("addresses is not first or all");
    provider.allAddresses = value == "all";
    return {};
}

Status takeParameter(const std::string& value, Provider& provider) {
    const auto allowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    };
    if (value.empty() || value == "hostname" || !std::all_of(value.begin(), value.end(), allowed))
        return malformedUrl("parameter is not the name of a parameter for addresses");
    provider.parameter = value;
    return {};
}

Status takeAuthorities(const std::string& value, Provider& provider) {
    if (!value.starts_with('/'))
        return malformedUrl("ca is not an absolute path");
    provider.authorities = value;
    return {};
}

Status takeOnly(const std::string& value, Provider& provider) {
    return provider.filter.takeOnly(value);
}

Status takeSkip(const std::string& value, Provider& provider) {
    return provider.filter.takeSkip(value);
}

constexpr struct {
    std::string_view name;
    Status (*take)(const std::string& value, Provider& provider);
} providerOptions[] = {{"addresses", takeAddresses},
                       {"parameter", takeParameter},
                       {"only", takeOnly},
                       {"skip", takeSkip},
                       {"ca", takeAuthorities}};

Status takeOptions(const Url& url, Provider& provider) {
    bool seen[std::size(providerOptions)] = {};
    for (const UrlOption& given : url.options) {
        const auto* option = std::find_if(std::begin(providerOptions), std::end(providerOptions),
                                          [&given](const auto& known) { return known.name == given.name; });
        if (option == std::end(providerOptions))
            return malformedUrl("it has an option other than addresses, parameter, only, skip and ca");
        bool& before = seen[option - std::begin(providerOptions)];
        if (before)
            return malformedUrl("the option " + std::string(option->name) + " is given twice");
        before = true;
        if (Status malformed = option->take(given.value, provider); !malformed.ok())
            return malformed;
    }
    return {};
}

}  // namespace

Result<Provider> parseProvider(const Url& url) {
    Result<std::vector<Server>> servers = parseServers(url.authority, httpsPort);
    if (!servers.ok())
        return servers.status();
    if (servers->size() > 1)
        return malformedUrl("it names more than one server");
    Provider provider;
    provider.server = std::move(servers->front());
    if (url.path.size() > 1)
        provider.path = url.path;
    if (Status malformed = takeOptions(url, provider); !malformed.ok())
        return malformed;
    return provider;
}

}  // namespace rdbopen
