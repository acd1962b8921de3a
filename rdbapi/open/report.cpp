#include "report.h"

#include <syslog.h>

namespace rdbopen {

namespace {

void report(int priority, std::string_view subject, std::string_view text) noexcept {
    syslog(LOG_DAEMON | priority, "rdbapi: %.*s: %.*s", static_cast<int>(subject.size()), subject.data(),
           static_cast<int>(text.size()), text.data());
}

}  // namespace

void reportFailure(std::string_view subject, std::string_view reason) noexcept {
    report(LOG_ERR, subject, reason);
}

void reportNote(std::string_view subject, std::string_view text) noexcept {
    report(LOG_INFO, subject, text);
}

void reportRecovery(std::string_view subject, std::string_view text) noexcept {
    report(LOG_NOTICE, subject, text);
}

}  // namespace rdbopen
