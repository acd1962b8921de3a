//  One connection: the thread that opens its back end, serves the calls queued for it, tells the events, and opens the
//  back end again when it fails.
//
//      idle --start--> opening --ok: 60001--> serving --failed: 60003--> back-off --> opening ...
//                         \--failed--> back-off --> opening ...           any of them --handle closed--> ended
//
//  Promises: calls are taken between 60001 and 60003 only. What the user of the handle wants the server to hold (wanted.h)
//  is completed by the worker itself: before 60001 after a failure, so that a link that fails at its first request tells
//  nothing; and with the same back-off while serving, when the server refuses it. The wait between attempts to open
//  grows until a connection has held for steadyTime, so a link that comes and goes is damped. A reason is reported when
//  it differs from the one before it by more than a count of seconds, not at each attempt. That it is over is reported
//  when a request has succeeded, nothing is pending, and the last check was not refused; after a refused one each
//  success is followed by a check.
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

//  A connection that held for so long counts as a sound one.
inline constexpr std::chrono::milliseconds steadyTime{60000};

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
    //  What there is to do while the back end is open.
    enum class Work { closed, call, complete, check };

    static void* threadMain(void* self);
    bool startThread();
    void run() noexcept;
    Outcome session();
    Outcome openAndComplete();
    Outcome serve(Call& call);
    Outcome completeWanted();
    Outcome checkWanted();
    Work nextWork(std::shared_ptr<Call>& call);
    bool takeCall(std::shared_ptr<Call>& call);
    std::chrono::milliseconds untilDue(Work& due) const;
    void setAccepting(bool accepting);
    void refuseWaiting() noexcept;
    void tell(std::int32_t event) noexcept;
    void noteOutcome(const Outcome& outcome) noexcept;
    void noteLoss(const Outcome& failure) noexcept;
    void noteReason(const std::string& reason) noexcept;
    void noteSuccess() noexcept;
    std::chrono::milliseconds backoff(unsigned failures);

    //  The back end's view of the handle.
    class SlotWaiter : public Waiter {
    public:
        explicit SlotWaiter(const HandleSlot& slot) : slot_(slot) {}
        Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override {
            return slot_.waitForDescriptor(descriptor, events, until);
        }

    private:
        const HandleSlot& slot_;
    };

    HandleSlot& slot_;
    const SlotWaiter waiter_;

    std::mutex mutex_;  // guards the queue and, until the thread starts, the members below it
    std::deque<std::shared_ptr<Call>> queue_;
    bool accepting_ = false;
    bool started_ = false;

    std::unique_ptr<Backend> backend_;
    RdbMessageNotify notify_ = nullptr;
    void* user_ = nullptr;

    //  Used by the worker's thread only. Times are those of monotonicNow().
    Wanted wanted_;
    bool connected_ = false;
    std::chrono::milliseconds connectedAt_{};
    std::chrono::milliseconds completeAt_{};  // when what is pending is due
    std::chrono::milliseconds checkAt_{};     // when the next check is due
    unsigned losses_ = 0;                     // in a row, without a sound connection between them
    unsigned refusals_ = 0;                   // in a row
    bool checkRefused_ = false;               // the last check was
    std::string lastReason_;                  // without its counts of seconds; empty while all is well
    std::minstd_rand random_;
};

}  // namespace rdbopen

#endif
