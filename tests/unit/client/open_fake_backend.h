//  A back end whose results the test determines.
#ifndef TESTS_UNIT_OPEN_FAKE_BACKEND_H
#define TESTS_UNIT_OPEN_FAKE_BACKEND_H

#include "engine/backend.h"
#include "engine/handle_table.h"
#include "engine/worker.h"
#include "open_support.h"

#include <atomic>
#include <memory>
#include <unistd.h>
#include <utility>

namespace opentest {

//  The state that the test and the back end share. It outlives the back end, which the worker owns and destroys.
struct Script {
    std::mutex mutex;
    std::deque<rdbopen::Status> opens;     // results of the next opens; further opens succeed
    std::deque<rdbopen::Status> requests;  // results of the next requests; further requests succeed
    std::atomic<bool> hold{false};         // a request waits while this is true
    std::atomic<int> silent{-1};           // if not -1, a request waits up to an hour for input on this descriptor
    std::atomic<int> opened{0};
    std::atomic<int> closed{0};
    std::atomic<int> served{0};
    std::atomic<bool> messages{true};
    std::atomic<int> watched{-1};        // descriptor
    std::atomic<bool> takesByte{false};  // a probe reads a byte from the watched descriptor, if available
    std::atomic<int> checkSeconds{0};    // interval of checks
    std::deque<rdbopen::Status> probes;  // results of the next probes; further probes succeed
    std::deque<rdbopen::Status> checks;  // results of the next checks; further checks succeed
    std::atomic<int> checkWaits{-1};     // if not -1, a check waits up to an hour for a byte from this descriptor
    std::atomic<int> checksBegun{0};
    std::atomic<bool> checksArePreemptible{true};  // calls may interrupt a check
    std::atomic<bool> refreshIsOneExchange{false};
    std::vector<std::string> made;  // descriptions of the requests
    std::atomic<int> probed{0};

    void note(const std::string& text) {
        const std::lock_guard lock(mutex);
        made.push_back(text);
    }
    std::vector<std::string> takeMade() {
        const std::lock_guard lock(mutex);
        return std::exchange(made, {});
    }

    rdbopen::Status next(std::deque<rdbopen::Status>& outcomes) {
        const std::lock_guard lock(mutex);
        if (outcomes.empty())
            return {};
        rdbopen::Status outcome = outcomes.front();
        outcomes.pop_front();
        return outcome;
    }
};

class FakeBackend : public rdbopen::Backend, public rdbopen::TagBackend, public rdbopen::UpdateBackend {
public:
    explicit FakeBackend(std::shared_ptr<Script> script) : script_(std::move(script)) {}

    std::string label() const override { return "fake"; }
    rdbopen::TagBackend* tags() noexcept override { return this; }
    rdbopen::UpdateBackend* updates() noexcept override { return script_->messages ? this : nullptr; }
    rdbopen::Status open(const rdbopen::Waiter& waiter) override {
        waiter_ = &waiter;
        ++script_->opened;
        return script_->next(script_->opens);
    }
    void close() noexcept override { ++script_->closed; }
    rdbopen::Status get(RdbTag& tag) override {
        tag.tagclass = RDB_TAG_CLASS_USABLE;
        return request("get " + std::string(tag.name));
    }
    rdbopen::Status import(const RdbTag& tag) override { return request("import " + std::string(tag.name)); }
    rdbopen::Status put(std::span<const RdbSnapshot> records) override {
        return request("put " + std::string(records[0].name) + "=" + records[0].value);
    }
    rdbopen::Status apply(std::string_view text, std::string& reply) override {
        reply = "done " + std::string(text);
        return request("send " + std::string(text));
    }
    int watchedDescriptor() const noexcept override { return script_->watched; }
    std::chrono::milliseconds checkInterval() const noexcept override {
        return std::chrono::seconds(script_->checkSeconds);
    }
    rdbopen::Status probe() override {
        ++script_->probed;
        if (script_->takesByte)
            takeByte(script_->watched);
        return script_->next(script_->probes);
    }
    bool checksArePreemptible() const noexcept override { return script_->checksArePreemptible; }
    bool refreshIsOneExchange() const noexcept override { return script_->refreshIsOneExchange; }
    rdbopen::Status checkValue(const RdbSnapshot&) override { return check(); }
    rdbopen::Status checkRequest(std::string_view) override { return check(); }
    //  Two requests are the same if their texts are equal before the first colon.
    std::optional<std::string> repetition(std::string_view text, std::string_view done) override {
        const bool same = text.substr(0, text.find(':')) == done.substr(0, done.find(':'));
        return same ? std::optional("again " + std::string(text)) : std::nullopt;
    }
    std::string refusal(std::string_view text, int code) override {
        return "refused " + std::string(text) + " " + std::to_string(code);
    }

private:
    rdbopen::Status request(const std::string& text) {
        script_->note(text);
        ++script_->served;
        eventually([this] { return !script_->hold; });
        if (script_->silent >= 0 && !answered())
            return rdbopen::backendFailed("no answer");
        return script_->next(script_->requests);
    }
    bool answered() const {
        const auto until = rdbopen::monotonicNow() + std::chrono::hours(1);
        return waiter_->wait(script_->silent, POLLIN, until) == rdbopen::Waiter::Result::ready;
    }

    static void takeByte(int descriptor) {
        char byte = 0;
        [[maybe_unused]] const auto taken = read(descriptor, &byte, 1);
    }

    //  If the wait ends with any result except "ready", the check fails.
    rdbopen::Status check() {
        const int descriptor = script_->checkWaits;
        ++script_->checksBegun;
        const auto until = rdbopen::monotonicNow() + std::chrono::hours(1);
        if (descriptor >= 0 && waiter_->wait(descriptor, POLLIN, until) != rdbopen::Waiter::Result::ready)
            return rdbopen::backendFailed("no answer");
        if (descriptor >= 0)
            takeByte(descriptor);
        return script_->next(script_->checks);
    }

    std::shared_ptr<Script> script_;
    const rdbopen::Waiter* waiter_ = nullptr;
};

//  Starts the worker of `handle` with a fake back end, as rdb_connectex does with a real one.
inline int connectFake(int handle, const std::shared_ptr<Script>& script) {
    const rdbopen::PinnedHandle pin(handle);
    return pin.worker()->start(std::make_unique<FakeBackend>(script));
}

}  // namespace opentest

#endif
