//  One connection: the thread that opens its back end, serves the calls queued for it, tells the events, and opens the
//  back end again when it fails.
//
//      idle --start--> opening --ok: 60001--> serving --failed: 60003--> back-off --> opening ...
//                         \--failed--> back-off --> opening ...           any of them --handle closed--> ended
//
//  Promises: calls are taken between 60001 and 60003 only. The wait between attempts grows until a request succeeds,
//  so a back end that opens and then fails at its first request is not hammered. A reason is reported when it differs
//  from the one before it, not at each attempt.
//
//  An event or reply is delivered when the handle is not closed at that moment. So when rdb_disconnect returns, at most
//  one callback is still to begin or to end: the one that the worker was delivering already.
//
//  Threads: the public operations may be called on any thread. The worker's thread blocks all signals.
#ifndef RDBAPI_OPEN_WORKER_H
#define RDBAPI_OPEN_WORKER_H

#include "call.h"
#include "handle_table.h"

#include <deque>
#include <memory>
#include <random>

namespace rdbopen {

//  Calls that may wait for the worker at one time.
inline constexpr std::size_t queueCapacity = 64;

class Worker {
public:
    explicit Worker(HandleSlot& slot);

    //  Return errorNone, errorAlreadyConnecting once started, or errorClosed. start also errorNoResources, and may then
    //  be called again.
    int setNotify(RdbMessageNotify notify, void* user);
    int start(std::unique_ptr<Backend> backend);

    //  Queues call. Returns errorNone, or the reason why it was not taken.
    int post(Backend::Service service, std::shared_ptr<Call> call);

    //  Queues call and waits for its end.
    int execute(const std::shared_ptr<WaitingCall>& call);

private:
    static void* threadMain(void* self);
    bool startThread();
    void run() noexcept;
    Outcome session();
    Outcome serve(Call& call);
    std::shared_ptr<Call> nextCall();
    void setAccepting(bool accepting);
    void refuseWaiting() noexcept;
    void tell(std::int32_t event) noexcept;
    void noteFailure(const Outcome& failure) noexcept;
    void noteSuccess() noexcept;

    HandleSlot& slot_;

    std::mutex mutex_;  // guards the queue and, until the thread starts, the members below it
    std::deque<std::shared_ptr<Call>> queue_;
    bool accepting_ = false;
    bool started_ = false;

    std::unique_ptr<Backend> backend_;
    RdbMessageNotify notify_ = nullptr;
    void* user_ = nullptr;

    //  Used by the worker's thread only.
    bool connected_ = false;
    unsigned failures_ = 0;
    std::string lastReason_;
    std::minstd_rand random_;
};

}  // namespace rdbopen

#endif
