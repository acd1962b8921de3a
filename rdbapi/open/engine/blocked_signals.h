//  Blocks all signals of the calling thread while the object exists.
#ifndef RDBAPI_OPEN_ENGINE_BLOCKED_SIGNALS_H
#define RDBAPI_OPEN_ENGINE_BLOCKED_SIGNALS_H

#include <csignal>

namespace rdbopen {

class BlockedSignals {
public:
    BlockedSignals() noexcept {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_;
};

}  // namespace rdbopen

#endif
