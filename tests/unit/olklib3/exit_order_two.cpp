#include "exit_order.h"

namespace {

keeper first("file two first");
keeper second("file two second");

}  // namespace
