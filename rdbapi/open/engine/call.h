//  One request on its way from a caller to the worker: carries copies of everything, so that neither side ever touches
//  the other's memory.
//
//      WaitingCall: caller waits ---- worker: run, finish ------> caller copies the result out
//                        \---- limit: abandoned; the worker sees to it later, or finishes it unseen
//      UpdateCall: caller goes on; worker: run, finish = reply callback
//
//  Held by shared_ptr; the last owner frees it.
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

    //  True when nobody waits for it any more.
    virtual bool abandoned() { return false; }

    //  True when its caller can do nothing else before it has succeeded. A failure of it ends the connection.
    virtual bool required() const { return false; }

    //  True when backend has the interface that the call needs.
    virtual bool isServedBy(Backend& backend) const = 0;

    //  Carries it out. Requires: isServedBy(backend), also of refuse and record.
    virtual Status run(Backend& backend) = 0;

    //  Prepares the answer of a call that ends without run, for the reason code.
    virtual void refuse(Backend&, int) {}

    //  Records in the desired state what the server should hold, and that the call ended with code.
    virtual void record(DesiredState&, int) const {}

    //  Hands the result to its caller. closed: the handle was closed, so no callback is called.
    virtual void finish(int code, bool closed) = 0;
};

//  A call whose caller waits, at most callLimit.
class WaitingCall : public Call {
public:
    //  Returns the code of the status, or errorTimedOut.
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

//  A request for tags.
struct TagCall : WaitingCall {
    bool isServedBy(Backend& backend) const override { return backend.tags() != nullptr; }
};

struct TagGetCall : TagCall {
    explicit TagGetCall(const RdbTag& query) : tag(query) {}
    bool required() const override { return true; }
    Status run(Backend& backend) override { return backend.tags()->get(tag); }
    void record(DesiredState& desired, int code) const override { desired.recordLookup(tag, code); }
    RdbTag tag;
};

struct TagImportCall : TagCall {
    explicit TagImportCall(const RdbTag& definition) : tag(definition) {}
    bool required() const override { return true; }
    Status run(Backend& backend) override { return backend.tags()->import(tag); }
    void record(DesiredState& desired, int code) const override { desired.recordTag(tag, code); }
    RdbTag tag;
};

struct PutCall : TagCall {
    PutCall(const RdbSnapshot* first, int count) : records(first, first + count) {}
    Status run(Backend& backend) override { return backend.tags()->put(records); }
    void record(DesiredState& desired, int code) const override {
        for (const RdbSnapshot& record : records)
            desired.recordValue(record, code);
    }
    std::vector<RdbSnapshot> records;
};

//  An update request. Its caller gets the reply by a callback.
class UpdateCall : public Call {
public:
    UpdateCall(std::string_view text, RdbReply callback, void* user) : text_(text), callback_(callback), user_(user) {}

    bool isServedBy(Backend& backend) const override { return backend.updates() != nullptr; }
    Status run(Backend& backend) override { return backend.updates()->apply(text_, reply_); }
    void refuse(Backend& backend, int code) override { reply_ = backend.updates()->refusal(text_, code); }
    void record(DesiredState& desired, int code) const override { desired.recordRequest(text_, code); }
    void finish(int code, bool closed) override;

private:
    std::string text_;
    std::string reply_;
    RdbReply callback_;
    void* user_;
};

}  // namespace rdbopen

#endif
