//  The module of the back end hosts.
#include "hosts/backend.h"
#include "module/file_advice.h"
#include "module/guarded_backend.h"

namespace {

using namespace rdbopen;

void advise(const UrlUse& use, std::vector<Advice>& advice) {
    const Result<AddressFilter> filter = parseHostsOptions(use.url);
    if (!filter.ok())
        return;
    adviseOnFile(use, advice);
    if (std::string text = filterAdvice(*filter, use.urlName); !text.empty())
        advice.push_back({Setting::url, std::move(text)});
}

constexpr std::string_view schemes[] = {"hosts"};

}  // namespace

RDBAPI_MODULE(hosts);
constinit const rdbopen::Module rdbapix64_hosts = describeModule<makeHostsBackend, advise>(schemes);
