#include "engine/desired_state.h"

#include <algorithm>

namespace rdbopen {

namespace {

//  Returns whether the same request may succeed later. Other failures of a back end are caused by the request itself:
//  each retry would fail, too, and delay the requests after it.
bool isRetryable(int code) {
    return code == errorBackendFailed || code == errorServerRefused || code == errorTimedOut ||
           code == errorNotConnected || code == errorNoSuchTag || code == errorTagNotUsable;
}

//  Returns the time of the confirmation by a request that ended with code, or nothing if the request failed.
std::optional<DesiredState::Time> confirmation(int code, DesiredState::Time now) {
    return code == errorNone ? std::optional(now) : std::nullopt;
}

bool areEqual(const RdbSnapshot& a, const RdbSnapshot& b) {
    return a.valuetype == b.valuetype && std::string_view(a.value, a.valuelen) == std::string_view(b.value, b.valuelen);
}

}  // namespace

//  errorNoSuchTag is an answer, so the lookup is not pending: the user of the handle creates the tag next.
void DesiredState::recordLookup(const RdbTag& tag, int code) {
    const bool unanswered = isRetryable(code) && code != errorNoSuchTag;
    if (const auto found = entries_.find(tag.name); found != entries_.end()) {
        found->second.lookupPending = unanswered;
        found->second.tagKnown = false;
    } else if (unanswered)
        entries_[tag.name].lookupPending = true;
    if (code == errorNone && tag.tagclass == RDB_TAG_CLASS_USABLE)
        recordTag(tag, code);
}

void DesiredState::recordTag(const RdbTag& tag, int code) {
    if (code != errorNone && !isRetryable(code))
        return;
    Entry& entry = entries_[tag.name];
    entry.tag = tag;
    entry.tagPending = code != errorNone;
    entry.tagKnown = code == errorNone;
    if (code == errorNone)
        entry.lookupPending = false;
}

void DesiredState::recordValue(const RdbSnapshot& value, int code, Time now) {
    if (code != errorNone && !isRetryable(code))
        return;
    Entry& entry = entries_[value.name];
    entry.value = value;
    entry.valuePending = code != errorNone;
    entry.valueConfirmed = confirmation(code, now);
}

void DesiredState::recordRequest(std::string_view text, int code, Time now) {
    if (code != errorNone && !isRetryable(code))
        return;
    request_ = text;
    requestPending_ = code != errorNone;
    requestConfirmed_ = confirmation(code, now);
}

void DesiredState::connectionOpened() noexcept {
    for (auto& [name, entry] : entries_) {
        entry.tagKnown = false;
        entry.valueConfirmed.reset();
    }
    requestConfirmed_.reset();
}

bool DesiredState::isConfirmed(const RdbSnapshot& value, Time since) const {
    const auto found = entries_.find(std::string_view(value.name));
    return found != entries_.end() && found->second.valueConfirmed >= since && areEqual(*found->second.value, value);
}

const RdbTag* DesiredState::confirmedTag(std::string_view name, Time since) const {
    const auto found = entries_.find(name);
    if (found == entries_.end() || !found->second.tagKnown || !(found->second.valueConfirmed >= since))
        return nullptr;
    return &*found->second.tag;
}

const std::string* DesiredState::confirmedRequest(Time since) const noexcept {
    return requestConfirmed_ >= since ? &request_ : nullptr;
}

bool DesiredState::pending() const noexcept {
    return requestPending_ || tagPending() ||
           std::any_of(entries_.begin(), entries_.end(), [](const auto& named) { return named.second.valuePending; });
}

bool DesiredState::tagPending() const noexcept {
    return std::any_of(entries_.begin(), entries_.end(),
                       [](const auto& named) { return named.second.lookupPending || named.second.tagPending; });
}

bool DesiredState::empty() const noexcept {
    return request_.empty() && std::none_of(entries_.begin(), entries_.end(),
                                            [](const auto& named) { return named.second.value.has_value(); });
}

//  Tags are retried first, because a server that lost its data refuses a value whose tag does not exist. The retry
//  stops at the first failure: the next request would probably fail, too, and each failure may take its full time
//  limit.
Status DesiredState::retry(Backend& backend, Time now) {
    while (tagPending())
        if (Status status = retryTag(backend); !status.ok())
            return status;
    for (auto& [name, entry] : entries_)
        if (entry.valuePending)
            if (Status status = putValue(backend, entry, now); !status.ok())
                return status;
    if (!requestPending_)
        return {};
    std::string reply;
    Status status = backend.updates()->apply(request_, reply);
    requestPending_ = isRetryable(status.code);
    if (!status.ok() && !requestPending_)
        request_.clear();
    requestConfirmed_ = confirmation(status.code, now);
    return status;
}

Status DesiredState::retryTag(Backend& backend) {
    for (auto& [name, entry] : entries_) {
        if (entry.tagPending)
            return importTag(backend, entry);
        if (entry.lookupPending)
            return lookUp(backend, name);
    }
    return {};
}

Status DesiredState::lookUp(Backend& backend, const std::string& name) {
    RdbTag tag{};
    name.copy(tag.name, sizeof tag.name - 1);
    Status status = backend.tags()->get(tag);
    recordLookup(tag, status.code);
    return status.code == errorNoSuchTag ? Status{} : status;
}

Status DesiredState::importTag(Backend& backend, Entry& entry) {
    Status status = backend.tags()->import(*entry.tag);
    entry.tagPending = isRetryable(status.code);
    entry.tagKnown = status.ok();
    if (!entry.tagPending)
        entry.lookupPending = false;
    return status;
}

Status DesiredState::sendValue(Backend& backend, Entry& entry) {
    if (!entry.refreshDue)
        return backend.tags()->put({&*entry.value, 1});
    RdbTag tag = *entry.tag;
    Status status = backend.tags()->refresh(*entry.value, tag);
    entry.tagKnown = status.ok();
    if (status.ok())
        entry.tag = tag;
    return status;
}

//  If the tag is missing or not usable, the server has probably lost its data, so the tag is imported again. If the
//  definition of the tag is unknown, the value is no longer pending: the user of the handle has to create the tag. A
//  value that can never be accepted is forgotten, because each check would find it missing. A retry is the first to
//  detect such a value if the caller timed out, or the connection was lost, before the back end had the value.
Status DesiredState::putValue(Backend& backend, Entry& entry, Time now) {
    Status status = sendValue(backend, entry);
    const bool tagMissing = status.code == errorNoSuchTag || status.code == errorTagNotUsable;
    if (tagMissing && entry.tag) {
        status = backend.tags()->import(*entry.tag);
        if (status.ok())
            status = backend.tags()->put({&*entry.value, 1});
    }
    entry.valuePending = isRetryable(status.code) && !(tagMissing && !entry.tag);
    entry.refreshDue = entry.refreshDue && entry.valuePending;
    entry.valueConfirmed = confirmation(status.code, now);
    if (!status.ok() && !isRetryable(status.code))
        entry.value.reset();
    return status;
}

Status DesiredState::check(Backend& backend, Time now) {
    const auto apply = [now](bool& pending, std::optional<Time>& confirmed, const Status& status) {
        pending = status.code == errorNotHeld;
        if (pending)
            confirmed.reset();
        if (status.ok() && confirmed)
            confirmed = now;
        return pending ? Status{} : status;
    };
    for (auto& [name, entry] : entries_) {
        if (!entry.value || entry.valuePending)
            continue;
        const Status status = backend.tags()->checkValue(*entry.value);
        if (Status failed = apply(entry.valuePending, entry.valueConfirmed, status); !failed.ok())
            return failed;
        entry.refreshDue = entry.valuePending && entry.tag;
    }
    if (!request_.empty() && !requestPending_)
        return apply(requestPending_, requestConfirmed_, backend.updates()->checkRequest(request_));
    return {};
}

//  A refresh also looks up the tag, so it finds a definition that another program has changed.
bool DesiredState::refresh() noexcept {
    for (auto& [name, entry] : entries_) {
        entry.valuePending = entry.value.has_value();
        entry.refreshDue = entry.value && entry.tag;
    }
    requestPending_ = !request_.empty();
    return pending();
}

}  // namespace rdbopen
