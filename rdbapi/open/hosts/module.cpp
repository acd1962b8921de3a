//  The module of the back end hosts.
#include "hosts/backend.h"
#include "module/file_advice.h"
#include "module/guarded_backend.h"

namespace {

constexpr std::string_view schemes[] = {"hosts"};

}  // namespace

RDBAPI_MODULE(hosts);
constinit const rdbopen::Module rdbapix64_hosts =
    rdbopen::describeModule<rdbopen::makeHostsBackend, rdbopen::adviseOnFile>(schemes);
