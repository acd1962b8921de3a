//  One request on its way from a caller to the worker: carries copies of everything, so that neither side ever touches
//  the other's memory.
//
//      WaitingCall: caller waits ---- worker: run, finish ------> caller copies the result out
//                        \---- limit: abandoned; the worker sees to it later, or finishes it unseen
//      MessageCall: caller goes on; worker: run, finish = reply callback
//
//  Shared by shared_ptr; whoever is later frees it.
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

    //  Carries it out.
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

struct TagGetCall : WaitingCall {
    explicit TagGetCall(const RdbTag& query) : tag(query) {}
    bool required() const override { return true; }
    Status run(Backend& backend) override { return backend.tagGet(tag); }
    void record(DesiredState& desired, int code) const override { desired.recordLookup(tag, code); }
    RdbTag tag;
};

struct TagImportCall : WaitingCall {
    explicit TagImportCall(const RdbTag& definition) : tag(definition) {}
    bool required() const override { return true; }
    Status run(Backend& backend) override { return backend.tagImport(tag); }
    void record(DesiredState& desired, int code) const override { desired.recordTag(tag, code); }
    RdbTag tag;
};

struct PutCall : WaitingCall {
    PutCall(const RdbSnapshot* first, int count) : records(first, first + count) {}
    Status run(Backend& backend) override { return backend.put(records); }
    void record(DesiredState& desired, int code) const override {
        for (const RdbSnapshot& record : records)
            desired.recordValue(record, code);
    }
    std::vector<RdbSnapshot> records;
};

class MessageCall : public Call {
public:
    MessageCall(std::string_view text, RdbReply callback, void* user) : text_(text), callback_(callback), user_(user) {}

    Status run(Backend& backend) override { return backend.message(text_, reply_); }
    void refuse(Backend& backend, int code) override { reply_ = backend.refusal(text_, code); }
    void record(DesiredState& desired, int code) const override { desired.recordMessage(text_, code); }
    void finish(int code, bool closed) override;

private:
    std::string text_;
    std::string reply_;
    RdbReply callback_;
    void* user_;
};

}  // namespace rdbopen

#endif
