#include "engine/wanted.h"

#include <algorithm>

namespace rdbopen {

namespace {

//  True when the same request may succeed at another time.
bool isRetryable(int code) {
    return code == errorBackendFailed || code == errorServerRefused || code == errorTimedOut ||
           code == errorNotConnected || code == errorNoSuchTag || code == errorTagNotUsable;
}

}  // namespace

//  "No such tag" is an answer, after which the user of the handle makes the tag.
void Wanted::noteLookup(const RdbTag& tag, int code) {
    const bool unanswered = isRetryable(code) && code != errorNoSuchTag;
    if (const auto found = entries_.find(tag.name); found != entries_.end())
        found->second.lookupPending = unanswered;
    else if (unanswered)
        entries_[tag.name].lookupPending = true;
    if (code == errorNone && tag.tagclass == RDB_TAG_CLASS_USABLE)
        noteTag(tag, code);
}

void Wanted::noteTag(const RdbTag& tag, int code) {
    if (code != errorNone && !isRetryable(code))
        return;
    Entry& entry = entries_[tag.name];
    entry.tag = tag;
    entry.tagPending = code != errorNone;
    if (code == errorNone)
        entry.lookupPending = false;
}

void Wanted::noteValue(const RdbSnapshot& value, int code) {
    if (code != errorNone && !isRetryable(code))
        return;
    Entry& entry = entries_[value.name];
    entry.value = value;
    entry.valuePending = code != errorNone;
}

void Wanted::noteMessage(std::string_view text, int code) {
    if (code != errorNone && !isRetryable(code))
        return;
    message_ = text;
    messagePending_ = code != errorNone;
}

bool Wanted::pending() const noexcept {
    return messagePending_ || tagPending() ||
           std::any_of(entries_.begin(), entries_.end(), [](const auto& named) { return named.second.valuePending; });
}

bool Wanted::tagPending() const noexcept {
    return std::any_of(entries_.begin(), entries_.end(),
                       [](const auto& named) { return named.second.lookupPending || named.second.tagPending; });
}

Status Wanted::complete(Backend& backend) {
    while (tagPending())
        if (Status status = completeTag(backend); !status.ok())
            return status;
    for (auto& [name, entry] : entries_)
        if (entry.valuePending)
            if (Status status = putValue(backend, entry); !status.ok())
                return status;
    if (!messagePending_)
        return {};
    std::string reply;
    Status status = backend.message(message_, reply);
    messagePending_ = isRetryable(status.code);
    return status;
}

Status Wanted::completeTag(Backend& backend) {
    for (auto& [name, entry] : entries_) {
        if (entry.tagPending)
            return importTag(backend, entry);
        if (entry.lookupPending)
            return lookUp(backend, name);
    }
    return {};
}

Status Wanted::lookUp(Backend& backend, const std::string& name) {
    RdbTag tag{};
    name.copy(tag.name, sizeof tag.name - 1);
    Status status = backend.tagGet(tag);
    noteLookup(tag, status.code);
    return status.code == errorNoSuchTag ? Status{} : status;
}

Status Wanted::importTag(Backend& backend, Entry& entry) {
    Status status = backend.tagImport(*entry.tag);
    entry.tagPending = isRetryable(status.code);
    if (!entry.tagPending)
        entry.lookupPending = false;
    return status;
}

//  A server that was emptied has lost the tag with the value. Without a definition there is nothing more to do: the user
//  of the handle makes the tag.
Status Wanted::putValue(Backend& backend, Entry& entry) {
    Status status = backend.put({&*entry.value, 1});
    const bool tagMissing = status.code == errorNoSuchTag || status.code == errorTagNotUsable;
    if (tagMissing && entry.tag) {
        status = backend.tagImport(*entry.tag);
        if (status.ok())
            status = backend.put({&*entry.value, 1});
    }
    entry.valuePending = isRetryable(status.code) && !(tagMissing && !entry.tag);
    return status;
}

Status Wanted::check(Backend& backend) {
    const auto look = [](bool& pending, const Status& status) {
        pending = status.code == errorNotHeld;
        return pending ? Status{} : status;
    };
    for (auto& [name, entry] : entries_)
        if (entry.value && !entry.valuePending)
            if (Status failed = look(entry.valuePending, backend.checkValue(*entry.value)); !failed.ok())
                return failed;
    if (!message_.empty() && !messagePending_)
        return look(messagePending_, backend.checkMessage(message_));
    return {};
}

}  // namespace rdbopen
