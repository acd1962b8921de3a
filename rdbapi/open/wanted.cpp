#include "wanted.h"

#include <algorithm>

namespace rdbopen {

namespace {

//  True when the same request may succeed at another time.
bool worthRepeating(int code) {
    return code == errorBackendFailed || code == errorServerRefused || code == errorTimedOut ||
           code == errorNotConnected || code == errorNoSuchTag || code == errorTagNotUsable;
}

}  // namespace

void Wanted::noteTag(const RdbTag& tag, int code) {
    if (code != errorNone && !worthRepeating(code))
        return;
    Entry& entry = entries_[tag.name];
    entry.tag = tag;
    entry.tagPending = code != errorNone;
}

void Wanted::noteValue(const RdbSnapshot& value, int code) {
    if (code != errorNone && !worthRepeating(code))
        return;
    Entry& entry = entries_[value.name];
    entry.value = value;
    entry.valuePending = code != errorNone;
}

void Wanted::noteMessage(std::string_view text, int code) {
    if (code != errorNone && !worthRepeating(code))
        return;
    message_ = text;
    messagePending_ = code != errorNone;
}

bool Wanted::pending() const noexcept {
    return messagePending_ || std::any_of(entries_.begin(), entries_.end(), [](const auto& named) {
               return named.second.tagPending || named.second.valuePending;
           });
}

Outcome Wanted::complete(Backend& backend) {
    for (auto& [name, entry] : entries_)
        if (Outcome outcome = completeEntry(backend, entry); outcome.code != errorNone)
            return outcome;
    if (!messagePending_)
        return {};
    std::string reply;
    Outcome outcome = backend.message(message_, reply);
    messagePending_ = worthRepeating(outcome.code);
    return outcome;
}

Outcome Wanted::completeEntry(Backend& backend, Entry& entry) {
    if (entry.tagPending) {
        Outcome outcome = backend.tagImport(*entry.tag);
        entry.tagPending = worthRepeating(outcome.code);
        if (outcome.code != errorNone)
            return outcome;
    }
    return entry.valuePending ? putValue(backend, entry) : Outcome{};
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
    entry.valuePending = worthRepeating(outcome.code) && !(tagMissing && !entry.tag);
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
