//  The module of the back end dns.
#include "dns/advice.h"
#include "dns/backend.h"
#include "module/guarded_backend.h"

namespace {

constexpr std::string_view schemes[] = {"dns"};

}  // namespace

RDBAPI_MODULE(dns);
constinit const rdbopen::Module rdbapix64_dns =
    rdbopen::describeModule<rdbopen::makePlainDnsBackend, rdbopen::adviseOnZone>(schemes);
