#include "dryrun/module.h"

#include "dryrun/backend.h"
#include "module/guarded_backend.h"

namespace {

constexpr std::string_view schemes[] = {"log"};

}  // namespace

constinit const rdbopen::Module rdbapix64_log = rdbopen::describeModule<rdbopen::makeLogBackend>(schemes);
