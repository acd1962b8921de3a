//  A shared object whose constructor writes to the environment which of SIGINT and SIGTERM are blocked.
#include <csignal>
#include <cstdlib>
#include <string>

namespace {

__attribute__((constructor)) void note() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::string blocked = sigismember(&mask, SIGINT) == 1 ? "INT " : "";
    blocked += sigismember(&mask, SIGTERM) == 1 ? "TERM" : "";
    setenv("MASKED_MODULE_BLOCKED", blocked.c_str(), 1);
}

}  // namespace
