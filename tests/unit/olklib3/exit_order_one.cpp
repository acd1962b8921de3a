#include "exit_order.h"

namespace {

keeper first("file one first");
keeper second("file one second");

}  // namespace
