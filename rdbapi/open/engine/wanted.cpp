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

Outcome Wanted::complete(Backend& backend) {
    while (tagPending())
        if (Outcome outcome = completeTag(backend); outcome.code != errorNone)
            return outcome;
    for (auto& [name, entry] : entries_)
        if (entry.valuePending)
            if (Outcome outcome = putValue(backend, entry); outcome.code != errorNone)
                return outcome;
    if (!messagePending_)
        return {};
    std::string reply;
    Outcome outcome = backend.message(message_, reply);
    messagePending_ = isRetryable(outcome.code);
    return outcome;
}

Outcome Wanted::completeTag(Backend& backend) {
    for (auto& [name, entry] : entries_) {
        if (entry.tagPending)
            return importTag(backend, entry);
        if (entry.lookupPending)
            return lookUp(backend, name);
    }
    return {};
}

Outcome Wanted::lookUp(Backend& backend, const std::string& name) {
    RdbTag tag{};
    name.copy(tag.name, sizeof tag.name - 1);
    Outcome outcome = backend.tagGet(tag);
    noteLookup(tag, outcome.code);
    return outcome.code == errorNoSuchTag ? Outcome{} : outcome;
}

Outcome Wanted::importTag(Backend& backend, Entry& entry) {
    Outcome outcome = backend.tagImport(*entry.tag);
    entry.tagPending = isRetryable(outcome.code);
    if (!entry.tagPending)
        entry.lookupPending = false;
    return outcome;
}

//  A server that was emptied has lost the tag with the value. Without a definition there is nothing more to do: the user
//  of the handle makes the tag.
Outcome Wanted::putValue(Backend& backend, Entry& entry) {
    Outcome outcome = backend.put({&*entry.value, 1});
    const bool tagMissing = outcome.code == errorNoSuchTag || outcome.code == errorTagNotUsable;
    if (tagMissing && entry.tag) {
        outcome = backend.tagImport(*entry.tag);
        if (outcome.code == errorNone)
            outcome = backend.put({&*entry.value, 1});
    }
    entry.valuePending = isRetryable(outcome.code) && !(tagMissing && !entry.tag);
    return outcome;
}

Outcome Wanted::check(Backend& backend) {
    const auto look = [](bool& pending, const Outcome& outcome) {
        pending = outcome.code == errorNotHeld;
        return pending ? Outcome{} : outcome;
    };
    for (auto& [name, entry] : entries_)
        if (entry.value && !entry.valuePending)
            if (Outcome failed = look(entry.valuePending, backend.checkValue(*entry.value)); failed.code != errorNone)
                return failed;
    if (!message_.empty() && !messagePending_)
        return look(messagePending_, backend.checkMessage(message_));
    return {};
}

}  // namespace rdbopen
