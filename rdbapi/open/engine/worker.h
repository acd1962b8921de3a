//  One connection: the thread that opens its back end, serves the calls queued for it, tells the events, and opens the
//  back end again when it fails.
//
//      idle --start--> opening --ok: 60001--> serving --failed: 60003--> back-off --> opening ...
//                         \--failed--> back-off --> opening ...           any of them --handle closed--> ended
//
//  Promises: calls are taken between 60001 and 60003 only. What the user of the handle wants the server to hold (wanted.h)
//  is completed by the worker itself: before 60001 after a failure, so that a link that fails at its first request tells
//  nothing; and with the same back-off while serving, when the server refuses it. The wait between attempts to open
//  grows until a connection has held for steadyTime, so a link that comes and goes is damped.
//
//  A user that cannot have its tag may do nothing else while it is told that it is connected. So a request for a tag
//  (Call::required) that is refused, fails or is not answered within callLimit ends the connection, and
//      (1) 60003 follows at once, also when an exchange with a silent server has to be cut short for it;
//      (2) the worker makes the request again each time that the back end is open, and 60001 follows only after it has
//          succeeded within callLimit;
//      (3) 60001 does not follow for awayTime, even when a server refuses every other request.
//  Another request that is refused, such as a put, leaves the connection as it is.
//
//  A reason is reported once until the server is sound again (reported_reasons.h), not at each attempt. Recovery
//  is reported when a request has succeeded, nothing is pending and the last check was not refused. After a refused check,
//  each success is followed by a new check. A check that a call cuts off counts as not made. Why a request can never
//  succeed is reported once until a call succeeds.
//
//  An event or reply is delivered when the handle is not closed at that moment. So when rdb_disconnect returns, at most
//  one callback is still to begin or to end: the one that the worker was delivering already.
//
//  Threads: the public operations may be called on any thread. The worker's thread blocks all signals.
#ifndef RDBAPI_OPEN_ENGINE_WORKER_H
#define RDBAPI_OPEN_ENGINE_WORKER_H

#include "engine/call.h"
#include "engine/close_signal.h"
#include "engine/reported_reasons.h"

#include <deque>
#include <memory>
#include <random>

namespace rdbopen {

//  Calls that may wait for the worker at one time.
inline constexpr std::size_t queueCapacity = 64;

//  A connection that held for so long counts as a sound one.
inline constexpr std::chrono::milliseconds steadyTime{60000};

//  From 60003 for a failed request for a tag to the first attempt to open again at least, on top of the first back-off
//  wait: more than the 10 s between two publish cycles of the service, so that one cycle finds the connection away and
//  goes on to its DNS step.
inline constexpr std::chrono::milliseconds awayTime{11000};

//  Keeps a worker in being from its start to its end.
class WorkerOwner {
public:
    //  Marks the handle as having a worker. Returns false when it is closed.
    virtual bool beginWorker() noexcept = 0;

    //  Takes the mark away: the worker's last action on anything of its own.
    virtual void endWorker() noexcept = 0;

protected:
    ~WorkerOwner() = default;
};

class Worker {
public:
    //  Requires: signal and owner outlive the worker.
    Worker(const CloseSignal& signal, WorkerOwner& owner);

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
    Status session();
    Status openAndComplete();
    Status serve(Call& call);
    Status completeTags();
    Status completeWanted();
    Status checkWanted();
    Status askServer();
    bool givesWay() noexcept;
    Work nextWork(std::shared_ptr<Call>& call);
    bool takeCall(std::shared_ptr<Call>& call);
    std::chrono::milliseconds untilDue(Work& due) const;
    void setAccepting(bool accepting);
    void refuseWaiting() noexcept;
    bool callerGaveUp() noexcept;
    void reportConnection() noexcept;
    void reportLoss() noexcept;
    void sendEvent(std::int32_t event) noexcept;
    void noteStatus(const Status& status) noexcept;
    void noteLoss(const Status& failure) noexcept;
    void noteReason(ReportedReasons& reasons, const std::string& reason) noexcept;
    void noteSuccess() noexcept;
    std::chrono::milliseconds backoff(unsigned failures);

    //  The back end's view of the handle. A wait ends as timedOut also when a request for a tag waits in vain.
    class SlotWaiter : public Waiter {
    public:
        explicit SlotWaiter(Worker& worker) : worker_(worker) {}
        Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override;
        bool over() const noexcept override {
            return worker_.signal_.closed() || worker_.callerGaveUp() || worker_.givesWay();
        }

    private:
        Worker& worker_;
    };

    const CloseSignal& signal_;
    WorkerOwner& owner_;
    const SlotWaiter waiter_;

    std::mutex mutex_;  // guards the queue and, until the thread starts, the members below it
    std::deque<std::shared_ptr<Call>> queue_;
    bool accepting_ = false;
    bool started_ = false;

    std::mutex eventMutex_;  // held while an event is delivered; guards the next member
    bool connectionReported_ = false;

    std::unique_ptr<Backend> backend_;
    RdbMessageNotify notify_ = nullptr;
    void* user_ = nullptr;

    //  Used by the worker's thread only. Times are those of monotonicNow().
    Wanted wanted_;
    Call* running_ = nullptr;                                                 // the call that the back end carries out
    std::chrono::milliseconds waitLimit_ = std::chrono::milliseconds::max();  // no wait of the back end goes beyond it
    bool requiredFailed_ = false;                                             // since the last pause
    bool connected_ = false;
    std::chrono::milliseconds connectedAt_{};
    std::chrono::milliseconds completeAt_{};  // when what is pending is due
    std::chrono::milliseconds checkAt_{};     // when the next check is due
    unsigned losses_ = 0;                     // in a row, without a sound connection between them
    unsigned refusals_ = 0;                   // in a row
    bool checkRefused_ = false;               // the last check was
    ReportedReasons reasons_;                 // empty while all is well
    ReportedReasons badRequests_;             // since a call last succeeded
    bool checking_ = false;                   // a check is under way
    bool gaveWay_ = false;                    // it was cut off
    std::minstd_rand random_;
};

}  // namespace rdbopen

#endif
