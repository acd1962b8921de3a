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

}  // namespace

//  errorNoSuchTag is an answer, so nothing is pending: the user of the handle creates the tag next.
void DesiredState::recordLookup(const RdbTag& tag, int code) {
    const bool unanswered = isRetryable(code) && code != errorNoSuchTag;
    if (const auto found = entries_.find(tag.name); found != entries_.end())
        found->second.lookupPending = unanswered;
    else if (unanswered)
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
    if (code == errorNone)
        entry.lookupPending = false;
}

void DesiredState::recordValue(const RdbSnapshot& value, int code) {
    if (code != errorNone && !isRetryable(code))
        return;
    Entry& entry = entries_[value.name];
    entry.value = value;
    entry.valuePending = code != errorNone;
}

void DesiredState::recordRequest(std::string_view text, int code) {
    if (code != errorNone && !isRetryable(code))
        return;
    request_ = text;
    requestPending_ = code != errorNone;
}

bool DesiredState::pending() const noexcept {
    return requestPending_ || tagPending() ||
           std::any_of(entries_.begin(), entries_.end(), [](const auto& named) { return named.second.valuePending; });
}

bool DesiredState::tagPending() const noexcept {
    return std::any_of(entries_.begin(), entries_.end(),
                       [](const auto& named) { return named.second.lookupPending || named.second.tagPending; });
}

//  Tags are retried first, because a server that lost its data refuses a value whose tag does not exist. The retry
//  stops at the first failure: the next request would probably fail, too, and each failure may take its full time
//  limit.
Status DesiredState::retry(Backend& backend) {
    while (tagPending())
        if (Status status = retryTag(backend); !status.ok())
            return status;
    for (auto& [name, entry] : entries_)
        if (entry.valuePending)
            if (Status status = putValue(backend, entry); !status.ok())
                return status;
    if (!requestPending_)
        return {};
    std::string reply;
    Status status = backend.updates()->apply(request_, reply);
    requestPending_ = isRetryable(status.code);
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
    if (!entry.tagPending)
        entry.lookupPending = false;
    return status;
}

//  If the tag is missing, the server has probably lost its data, so the tag is imported again. If its definition is not
//  known here, the value is no longer pending: the user of the handle has to create the tag.
Status DesiredState::putValue(Backend& backend, Entry& entry) {
    Status status = backend.tags()->put({&*entry.value, 1});
    const bool tagMissing = status.code == errorNoSuchTag || status.code == errorTagNotUsable;
    if (tagMissing && entry.tag) {
        status = backend.tags()->import(*entry.tag);
        if (status.ok())
            status = backend.tags()->put({&*entry.value, 1});
    }
    entry.valuePending = isRetryable(status.code) && !(tagMissing && !entry.tag);
    return status;
}

Status DesiredState::check(Backend& backend) {
    const auto markMissing = [](bool& pending, const Status& status) {
        pending = status.code == errorNotHeld;
        return pending ? Status{} : status;
    };
    for (auto& [name, entry] : entries_)
        if (entry.value && !entry.valuePending)
            if (Status failed = markMissing(entry.valuePending, backend.tags()->checkValue(*entry.value)); !failed.ok())
                return failed;
    if (!request_.empty() && !requestPending_)
        return markMissing(requestPending_, backend.updates()->checkRequest(request_));
    return {};
}

}  // namespace rdbopen
