//  The module of the back end dyndns2, scheme dyndns2+https.
#include "dyndns2/advice.h"
#include "dyndns2/backend.h"
#include "module/guarded_backend.h"

namespace {

constexpr std::string_view schemes[] = {"dyndns2+https"};

}  // namespace

RDBAPI_MODULE(dyndns2_https);
constinit const rdbopen::Module rdbapix64_dyndns2_https =
    rdbopen::describeModule<rdbopen::makeDyndns2Backend, rdbopen::adviseOnProvider>(schemes);
