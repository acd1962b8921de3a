//  A back end under the test's control.
#ifndef TESTS_UNIT_OPEN_FAKE_BACKEND_H
#define TESTS_UNIT_OPEN_FAKE_BACKEND_H

#include "backend.h"
#include "handle_table.h"
#include "open_support.h"
#include "worker.h"

#include <atomic>
#include <memory>

namespace opentest {

//  Lives longer than the back end, which belongs to the worker.
struct Script {
    std::mutex mutex;
    std::deque<rdbopen::Outcome> opens;     // outcomes of the next opens, then success
    std::deque<rdbopen::Outcome> requests;  // outcomes of the next requests, then success
    std::atomic<bool> hold{false};          // a request waits while it is set
    std::atomic<int> opened{0};
    std::atomic<int> closed{0};
    std::atomic<int> served{0};
    std::atomic<bool> messages{true};

    rdbopen::Outcome next(std::deque<rdbopen::Outcome>& outcomes) {
        const std::lock_guard lock(mutex);
        if (outcomes.empty())
            return {};
        rdbopen::Outcome outcome = outcomes.front();
        outcomes.pop_front();
        return outcome;
    }
};

class FakeBackend : public rdbopen::Backend {
public:
    explicit FakeBackend(std::shared_ptr<Script> script) : script_(std::move(script)) {}

    std::string label() const override { return "fake"; }
    bool serves(Service service) const noexcept override { return service == Service::tags || script_->messages; }
    rdbopen::Outcome open() override {
        ++script_->opened;
        return script_->next(script_->opens);
    }
    void close() noexcept override { ++script_->closed; }
    rdbopen::Outcome tagGet(RdbTag& tag) override {
        tag.tagclass = RDB_TAG_CLASS_USABLE;
        return request();
    }
    rdbopen::Outcome tagImport(const RdbTag&) override { return request(); }
    rdbopen::Outcome put(std::span<const RdbSnapshot>) override { return request(); }
    rdbopen::Outcome message(std::string_view text, std::string& reply) override {
        reply = "done " + std::string(text);
        return request();
    }
    std::string refusal(std::string_view text, int code) override {
        return "refused " + std::string(text) + " " + std::to_string(code);
    }

private:
    rdbopen::Outcome request() {
        ++script_->served;
        eventually([this] { return !script_->hold; });
        return script_->next(script_->requests);
    }

    std::shared_ptr<Script> script_;
};

//  Starts handle's worker on a fake back end, as rdb_connectex does with a real one.
inline int connectFake(int handle, const std::shared_ptr<Script>& script) {
    const rdbopen::PinnedHandle pin(handle);
    return pin.worker()->start(std::make_unique<FakeBackend>(script));
}

}  // namespace opentest

#endif
