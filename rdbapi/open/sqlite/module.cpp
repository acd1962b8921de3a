//  The module of the back end sqlite.
#include "module/file_advice.h"
#include "module/guarded_backend.h"
#include "sqlite/backend.h"

namespace {

constexpr std::string_view schemes[] = {"sqlite"};

}  // namespace

RDBAPI_MODULE(sqlite);
constinit const rdbopen::Module rdbapix64_sqlite =
    rdbopen::describeModule<rdbopen::makeSqliteBackend, rdbopen::adviseOnFile>(schemes);
