#include "dyndns2/advice.h"

#include "dyndns2/provider_url.h"
#include "module/tls_advice.h"

namespace rdbopen {

void adviseOnProvider(const UrlUse& use, std::vector<Advice>& advice) {
    const Result<Provider> provider = parseProvider(use.url);
    if (!provider.ok())
        return;
    if (!use.hostname.empty() && use.hostname.find('.') == std::string_view::npos)
        advice.push_back({Setting::hostname, "hostname is not a full domain name, so the provider of " +
                                                 std::string(use.urlName) + " rejects it"});
    if (std::string text = filterAdvice(provider->filter, use.urlName); !text.empty())
        advice.push_back({Setting::url, std::move(text)});
    Url tls = use.url;
    std::erase_if(tls.options, [](const UrlOption& option) { return option.name != "ca"; });
    adviseOnTls({tls, use.credentials, use.urlName, use.passwordName, use.hostname, use.httpsPorts}, advice);
}

}  // namespace rdbopen
