//  One request that a caller passes to the worker. A call owns copies of all its data, so the worker does not access
//  data of the caller.
//
//      WaitingCall: caller waits ------- worker: run, finish ------> caller copies the result
//                        \---- time limit: caller returns, the call is abandoned. If it has not run yet, the worker
//                              only records it in the desired state
//      UpdateCall: caller continues ---- worker: run, finish, which calls the reply callback
//
//  Each call is owned by shared_ptr: by the queue, then by the worker, and a WaitingCall also by its caller.
#ifndef RDBAPI_OPEN_ENGINE_CALL_H
#define RDBAPI_OPEN_ENGINE_CALL_H

#include "engine/backend.h"
#include "engine/desired_state.h"
#include "engine/timed_condition.h"

#include <mutex>
#include <string>
#include <vector>

namespace rdbopen {

class Call {
public:
    Call() = default;
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    virtual ~Call() = default;

    //  Returns whether the caller has stopped waiting for the result.
    virtual bool abandoned() { return false; }

    //  Returns whether the caller cannot continue without an answer to this call. If the back end fails at such a call,
    //  or the call is refused or times out, the worker ends the connection.
    virtual bool required() const { return false; }

    //  Returns whether backend has the interface that the call needs.
    virtual bool isServedBy(Backend& backend) const = 0;

    //  Returns true if no exchange is needed, because the server has confirmed the data of the request at the given
    //  time or later; the result is then prepared. Otherwise returns false. takeConfirmed, run, refuse and record
    //  require isServedBy(backend).
    virtual bool takeConfirmed(const DesiredState&, Backend&, DesiredState::Time) { return false; }

    //  Carries out the request.
    virtual Status run(Backend& backend) = 0;

    //  Prepares the reply when the request is not carried out; code says why. Called instead of run.
    virtual void refuse(Backend&, int) {}

    //  Stores the requested data in the desired state. code: the result of the request, which decides whether the data
    //  is stored and whether it is pending. now: when run began, or the current time if the call was not run.
    virtual void record(DesiredState&, int, DesiredState::Time) const {}

    //  Passes the result to the caller. closed: the handle was closed, so the callback is not called.
    virtual void finish(int code, bool closed) = 0;
};

//  A call whose caller waits for the result, for at most callLimit.
class WaitingCall : public Call {
public:
    //  Waits for finish. Returns its code, or errorTimedOut.
    int wait();

    bool abandoned() override;
    void finish(int code, bool closed) override;

private:
    enum class State { waiting, abandoned, finished };

    std::mutex mutex_;
    TimedCondition finishedCondition_;
    State state_ = State::waiting;
    int code_ = errorNone;
};

//  A request for tags or for their values.
struct TagCall : WaitingCall {
    bool isServedBy(Backend& backend) const override { return backend.tags() != nullptr; }
};

struct TagGetCall : TagCall {
    explicit TagGetCall(const RdbTag& query) : tag(query) {}
    bool required() const override { return true; }
    bool takeConfirmed(const DesiredState& desired, Backend& backend, DesiredState::Time since) override;
    Status run(Backend& backend) override { return backend.tags()->get(tag); }
    void record(DesiredState& desired, int code, DesiredState::Time) const override { desired.recordLookup(tag, code); }
    RdbTag tag;
};

struct TagImportCall : TagCall {
    explicit TagImportCall(const RdbTag& definition) : tag(definition) {}
    bool required() const override { return true; }
    Status run(Backend& backend) override { return backend.tags()->import(tag); }
    void record(DesiredState& desired, int code, DesiredState::Time) const override { desired.recordTag(tag, code); }
    RdbTag tag;
};

struct PutCall : TagCall {
    PutCall(const RdbSnapshot* first, int count) : records(first, first + count) {}
    bool takeConfirmed(const DesiredState& desired, Backend& backend, DesiredState::Time since) override;
    Status run(Backend& backend) override { return backend.tags()->put(records); }
    void record(DesiredState& desired, int code, DesiredState::Time now) const override {
        for (const RdbSnapshot& record : records)
            desired.recordValue(record, code, now);
    }
    std::vector<RdbSnapshot> records;
};

//  An update request. Its caller does not wait; a callback delivers the reply.
class UpdateCall : public Call {
public:
    UpdateCall(std::string_view text, RdbReply callback, void* user) : text_(text), callback_(callback), user_(user) {}

    bool isServedBy(Backend& backend) const override { return backend.updates() != nullptr; }
    bool takeConfirmed(const DesiredState& desired, Backend& backend, DesiredState::Time since) override;
    Status run(Backend& backend) override { return backend.updates()->apply(text_, reply_); }
    void refuse(Backend& backend, int code) override { reply_ = backend.updates()->refusal(text_, code); }
    void record(DesiredState& desired, int code, DesiredState::Time now) const override {
        desired.recordRequest(text_, code, now);
    }
    void finish(int code, bool closed) override;

private:
    std::string text_;
    std::string reply_;
    RdbReply callback_;
    void* user_;
};

}  // namespace rdbopen

#endif
