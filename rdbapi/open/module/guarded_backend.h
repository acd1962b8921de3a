//  Wrappers that convert each exception of a back end to a failure or an empty result. An exception must not leave a
//  module, because its caller uses another copy of the C++ run time.
#ifndef RDBAPI_OPEN_MODULE_GUARDED_BACKEND_H
#define RDBAPI_OPEN_MODULE_GUARDED_BACKEND_H

#include "module/module.h"

#include <utility>

namespace rdbopen {

//  Returns the result of action. Containers of a back end throw when memory is exhausted. An exception becomes
//  errorBackendFailed, after which the worker closes the back end and opens it again.
template <class Action>
Status guarded(Action action) noexcept {
    try {
        return action();
    } catch (...) {
        return {errorBackendFailed, "out of memory"};  // short enough to need no allocation
    }
}

//  Returns the text that action returns, or an empty text after an exception.
template <class Action>
std::string guardedText(Action action) noexcept {
    try {
        return action();
    } catch (...) {
        return {};
    }
}

class GuardedTags final : public TagBackend {
public:
    explicit GuardedTags(TagBackend* tags) noexcept : tags_(tags) {}

    Status get(RdbTag& tag) noexcept override {
        return guarded([&] { return tags_->get(tag); });
    }
    Status import(const RdbTag& tag) noexcept override {
        return guarded([&] { return tags_->import(tag); });
    }
    Status put(std::span<const RdbSnapshot> records) noexcept override {
        return guarded([&] { return tags_->put(records); });
    }
    Status refresh(const RdbSnapshot& record, RdbTag& tag) noexcept override {
        return guarded([&] { return tags_->refresh(record, tag); });
    }
    bool refreshIsOneExchange() const noexcept override { return tags_->refreshIsOneExchange(); }
    Status checkValue(const RdbSnapshot& record) noexcept override {
        return guarded([&] { return tags_->checkValue(record); });
    }

private:
    TagBackend* tags_;
};

class GuardedUpdates final : public UpdateBackend {
public:
    explicit GuardedUpdates(UpdateBackend* updates) noexcept : updates_(updates) {}

    Status apply(std::string_view request, std::string& reply) noexcept override {
        return guarded([&] { return updates_->apply(request, reply); });
    }
    std::string refusal(std::string_view request, int code) noexcept override {
        return guardedText([&] { return updates_->refusal(request, code); });
    }
    std::optional<std::string> repetition(std::string_view request, std::string_view done) noexcept override {
        try {
            return updates_->repetition(request, done);
        } catch (...) {
            return {};
        }
    }
    Status checkRequest(std::string_view request) noexcept override {
        return guarded([&] { return updates_->checkRequest(request); });
    }

private:
    UpdateBackend* updates_;
};

class GuardedInspector final : public Inspector {
public:
    explicit GuardedInspector(Inspector* inspector) noexcept : inspector_(inspector) {}

    Status openToRead(const Waiter& waiter) noexcept override {
        return guarded([&] { return inspector_->openToRead(waiter); });
    }
    Result<Holdings> held(const HostNames& host) noexcept override {
        try {
            return inspector_->held(host);
        } catch (...) {
            return Status{errorBackendFailed, "out of memory"};  // short enough to need no allocation
        }
    }
    Result<std::vector<std::string>> published(const std::vector<std::string>& addresses) noexcept override {
        try {
            return inspector_->published(addresses);
        } catch (...) {
            return Status{errorBackendFailed, "out of memory"};  // short enough to need no allocation
        }
    }
    Status examine(const HostNames& host, std::vector<Examination>& results) noexcept override {
        return guarded([&] { return inspector_->examine(host, results); });
    }
    Status remove(std::vector<RemovalStep>& steps) noexcept override {
        return guarded([&] { return inspector_->remove(steps); });
    }

private:
    Inspector* inspector_;
};

//  Owns a back end and forwards each operation to it.
class GuardedBackend final : public Backend {
public:
    explicit GuardedBackend(std::unique_ptr<Backend> backend) noexcept
        : backend_(std::move(backend)), tags_(backend_->tags()), updates_(backend_->updates()),
          inspector_(backend_->inspector()) {}

    TagBackend* tags() noexcept override { return backend_->tags() == nullptr ? nullptr : &tags_; }
    UpdateBackend* updates() noexcept override { return backend_->updates() == nullptr ? nullptr : &updates_; }
    Inspector* inspector() noexcept override { return backend_->inspector() == nullptr ? nullptr : &inspector_; }
    std::string label() const noexcept override {
        return guardedText([this] { return backend_->label(); });
    }
    Status open(const Waiter& waiter) noexcept override {
        return guarded([&] { return backend_->open(waiter); });
    }
    void close() noexcept override { backend_->close(); }
    int watchedDescriptor() const noexcept override { return backend_->watchedDescriptor(); }
    std::chrono::milliseconds checkInterval() const noexcept override { return backend_->checkInterval(); }
    bool checksArePreemptible() const noexcept override { return backend_->checksArePreemptible(); }
    Status probe() noexcept override {
        return guarded([this] { return backend_->probe(); });
    }

private:
    std::unique_ptr<Backend> backend_;
    GuardedTags tags_;
    GuardedUpdates updates_;
    GuardedInspector inspector_;
};

using MakeBackend = BackendResult(const Url&, const Credentials&);
using AdviseOnUrl = void(const UrlUse&, std::vector<Advice>&);

template <MakeBackend* make>
BackendResult makeGuarded(const Url& url, const Credentials& credentials) noexcept {
    try {
        BackendResult made = make(url, credentials);
        return made.ok() ? BackendResult(std::make_unique<GuardedBackend>(std::move(*made))) : std::move(made);
    } catch (...) {
        return Status{errorNoResources, "out of memory"};  // short enough to need no allocation
    }
}

template <AdviseOnUrl* advise>
void adviseGuarded(const UrlUse& use, std::vector<Advice>& advice) noexcept {
    try {
        advise(use, advice);
    } catch (...) {
        return;  // advice that was already added is kept
    }
}

inline void adviseNothing(const UrlUse&, std::vector<Advice>&) {}

//  Returns the descriptor of a back end of this build.
template <MakeBackend* make, AdviseOnUrl* advise = adviseNothing>
constexpr Module describeModule(std::span<const std::string_view> schemes) {
    return {moduleInterface, RDBAPI_VERSION, schemes, makeGuarded<make>, adviseGuarded<advise>};
}

}  // namespace rdbopen

#endif
