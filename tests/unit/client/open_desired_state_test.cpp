#include "engine/desired_state.h"

#include "open_support.h"

#include <gtest/gtest.h>
#include <map>

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr DesiredState::Time began{5000};
constexpr DesiredState::Time later{6000};

//  A server that stores tags, values and the last update request. The test sets which requests fail.
class Holder : public Backend, public TagBackend, public UpdateBackend {
public:
    std::map<std::string, std::string> values;
    std::map<std::string, bool> defined;
    std::string sent;
    int successes = 0;  // number of requests that succeed before the next failure
    int failures = 0;   // number of requests that fail after these successes
    int requests = 0;
    bool badRequest = false;
    int lookups = 0;

    std::string label() const override { return "holder"; }
    TagBackend* tags() noexcept override { return this; }
    UpdateBackend* updates() noexcept override { return this; }
    Status open(const Waiter&) override { return {}; }
    void close() noexcept override {}
    Status get(RdbTag& tag) override {
        if (failing())
            return backendFailed("x");
        ++lookups;
        tag.tagclass = defined.contains(tag.name) ? RDB_TAG_CLASS_USABLE : 0;
        return {defined.contains(tag.name) ? errorNone : errorNoSuchTag, {}};
    }
    Status import(const RdbTag& tag) override {
        if (failing())
            return backendFailed("x");
        defined[tag.name] = true;
        return {};
    }
    Status put(std::span<const RdbSnapshot> records) override {
        if (failing())
            return backendFailed("x");
        if (badRequest)
            return {errorBadRequest, "no name"};
        if (!defined.contains(records[0].name))
            return {errorNoSuchTag, {}};
        values[records[0].name] = records[0].value;
        return {};
    }
    Status apply(std::string_view text, std::string&) override {
        if (failing())
            return backendFailed("x");
        if (badRequest)
            return {errorBadRequest, "no name"};
        sent = text;
        return {};
    }
    std::string refusal(std::string_view, int) override { return {}; }
    Status checkValue(const RdbSnapshot& value) override {
        const auto found = values.find(value.name);
        return {found != values.end() && found->second == value.value ? errorNone : errorNotHeld, {}};
    }
    Status checkRequest(std::string_view text) override { return {sent == text ? errorNone : errorNotHeld, {}}; }

private:
    bool failing() {
        ++requests;
        if (successes > 0 && successes-- > 0)
            return false;
        return failures > 0 && failures-- > 0;
    }
};

TEST(DesiredState, NothingIsPendingAtFirst) {
    EXPECT_FALSE(DesiredState().pending());
}

TEST(DesiredState, ASuccessfulRequestIsNotPending) {
    DesiredState desired;
    desired.recordTag(usableTag("t"), errorNone);
    desired.recordValue(recordOf("t", "1"), errorNone, began);
    desired.recordRequest("m", errorNone, began);
    EXPECT_FALSE(desired.pending());
}

TEST(DesiredState, EveryTemporaryFailureIsPending) {
    for (const int code : {errorBackendFailed, errorServerRefused, errorTimedOut, errorNotConnected}) {
        DesiredState tag;
        tag.recordTag(usableTag("t"), code);
        DesiredState value;
        value.recordValue(recordOf("t", "1"), code, began);
        DesiredState message;
        message.recordRequest("m", code, began);
        EXPECT_TRUE(tag.pending() && value.pending() && message.pending()) << code;
    }
}

TEST(DesiredState, ALookupIsPendingUntilTheServerAnswersIt) {
    for (const int code : {errorBackendFailed, errorServerRefused, errorTimedOut, errorNotConnected}) {
        DesiredState desired;
        desired.recordLookup(tagNamed("t"), code);
        EXPECT_TRUE(desired.tagPending()) << code;
        Holder holder;
        holder.failures = 1;
        EXPECT_EQ(desired.retryTag(holder).code, errorBackendFailed);
        EXPECT_TRUE(desired.tagPending()) << code;
        EXPECT_EQ(desired.retryTag(holder).code, errorNone);
        EXPECT_FALSE(desired.pending()) << code;
        EXPECT_EQ(holder.lookups, 1);
    }
}

TEST(DesiredState, AnAnsweredLookupIsNotPending) {
    for (const int code : {errorNone, errorNoSuchTag, errorNotSupported}) {
        DesiredState desired;
        desired.recordLookup(tagNamed("t"), errorServerRefused);
        desired.recordLookup(tagNamed("t"), code);
        EXPECT_FALSE(desired.pending()) << code;
    }
}

TEST(DesiredState, AnImportAnswersTheLookupToo) {
    DesiredState desired;
    desired.recordLookup(tagNamed("t"), errorServerRefused);
    desired.recordTag(usableTag("t"), errorServerRefused);
    Holder holder;
    EXPECT_EQ(desired.retryTag(holder).code, errorNone);
    EXPECT_FALSE(desired.pending());
    EXPECT_EQ(holder.lookups, 0);
}

TEST(DesiredState, AllTagsAreSentBeforeTheFirstValue) {
    DesiredState desired;
    desired.recordValue(recordOf("a", "1"), errorBackendFailed, began);
    desired.recordTag(usableTag("b"), errorBackendFailed);
    desired.recordLookup(tagNamed("c"), errorBackendFailed);
    Holder holder;
    EXPECT_EQ(desired.retry(holder, began).code, errorNoSuchTag);
    EXPECT_TRUE(holder.defined.contains("b"));
    EXPECT_EQ(holder.lookups, 1);
}

TEST(DesiredState, AFinalRefusalKeepsTheEarlierRequest) {
    DesiredState desired;
    desired.recordRequest("m", errorNone, began);
    desired.recordRequest("malformed", errorBadRequest, began);
    Holder holder;
    EXPECT_EQ(desired.check(holder, began).code, errorNone);
    EXPECT_EQ(desired.retry(holder, began).code, errorNone);
    EXPECT_EQ(holder.sent, "m");
}

TEST(DesiredState, AnEmptiedServerReceivesEverythingAgain) {
    DesiredState desired;
    for (const char* name : {"a", "b", "c"}) {
        desired.recordTag(usableTag(name), errorNone);
        desired.recordValue(recordOf(name, "of " + std::string(name)), errorNone, began);
    }
    desired.recordRequest("m", errorNone, began);
    Holder emptied;
    EXPECT_EQ(desired.check(emptied, began).code, errorNone);
    EXPECT_TRUE(desired.pending());
    EXPECT_EQ(desired.retry(emptied, began).code, errorNone);
    EXPECT_FALSE(desired.pending());
    EXPECT_EQ(emptied.values, (std::map<std::string, std::string>{{"a", "of a"}, {"b", "of b"}, {"c", "of c"}}));
    EXPECT_EQ(emptied.sent, "m");
}

//  Returns a desired state with the tag "a", its value and an update request, all accepted by the server.
DesiredState accepted(Holder& holder) {
    DesiredState desired;
    desired.recordTag(usableTag("a"), holder.import(usableTag("a")).code);
    const RdbSnapshot value = recordOf("a", "1");
    desired.recordValue(value, holder.put({&value, 1}).code, began);
    std::string reply;
    desired.recordRequest("m", holder.apply("m", reply).code, began);
    return desired;
}

//  Returns whether the tag, the value and the request are confirmed: 'x' or '-' for each, in this order.
std::string confirmed(const DesiredState& desired, DesiredState::Time since) {
    const auto mark = [](bool is) { return is ? 'x' : '-'; };
    return {mark(desired.confirmedTag("a", since) != nullptr), mark(desired.isConfirmed(recordOf("a", "1"), since)),
            mark(desired.confirmedRequest(since) != nullptr)};
}

TEST(DesiredState, AcceptedDataIsConfirmedAtTheTimeOfTheRequest) {
    Holder holder;
    const DesiredState desired = accepted(holder);
    EXPECT_EQ(confirmed(desired, began), "xxx");
    EXPECT_EQ(confirmed(desired, began + DesiredState::Time(1)), "---");
    EXPECT_EQ(*desired.confirmedRequest(began), "m");
    EXPECT_EQ(desired.confirmedTag("a", began)->tagclass, RDB_TAG_CLASS_USABLE);
    EXPECT_EQ(desired.confirmedTag("b", began), nullptr);
}

TEST(DesiredState, OnlyTheSameValueIsConfirmed) {
    Holder holder;
    const DesiredState desired = accepted(holder);
    RdbSnapshot other = recordOf("a", "1");
    other.valuetype = 0;
    EXPECT_FALSE(desired.isConfirmed(other, began));
    EXPECT_FALSE(desired.isConfirmed(recordOf("a", "11"), began));
    EXPECT_FALSE(desired.isConfirmed(recordOf("b", "1"), began));
}

TEST(DesiredState, ACheckThatFindsTheDataConfirmsIt) {
    Holder holder;
    DesiredState desired = accepted(holder);
    EXPECT_EQ(desired.check(holder, later).code, errorNone);
    EXPECT_EQ(confirmed(desired, later), "xxx");
}

TEST(DesiredState, DataThatACheckFindsMissingIsConfirmedAgainByTheRetryOnly) {
    Holder holder;
    DesiredState desired = accepted(holder);
    Holder emptied;
    EXPECT_EQ(desired.check(emptied, later).code, errorNone);
    EXPECT_EQ(confirmed(desired, began), "---");
    EXPECT_EQ(desired.retry(emptied, later).code, errorNone);
    EXPECT_EQ(confirmed(desired, later), "xxx");
}

TEST(DesiredState, OnANewConnectionACheckConfirmsNothing) {
    Holder holder;
    DesiredState desired = accepted(holder);
    desired.connectionOpened();
    EXPECT_EQ(desired.check(holder, later).code, errorNone);
    EXPECT_EQ(confirmed(desired, began), "---");
    EXPECT_FALSE(desired.pending());
}

TEST(DesiredState, AFailureEndsTheConfirmation) {
    for (const int code : {errorBackendFailed, errorServerRefused, errorTimedOut, errorNotConnected, errorNoSuchTag}) {
        Holder holder;
        DesiredState desired = accepted(holder);
        desired.recordLookup(tagNamed("a"), code);
        EXPECT_EQ(confirmed(desired, began), "-xx") << code;
        desired.recordValue(recordOf("a", "1"), code, later);
        desired.recordRequest("m", code, later);
        EXPECT_EQ(confirmed(desired, began), "---") << code;
    }
}

TEST(DesiredState, ARefreshSendsValueAndRequestAgainAndConfirmsThemAndTheTag) {
    Holder holder;
    DesiredState desired = accepted(holder);
    holder.values.clear();
    holder.sent.clear();
    EXPECT_TRUE(desired.refresh());
    EXPECT_EQ(desired.retry(holder, later).code, errorNone);
    EXPECT_EQ(holder.lookups, 1);
    EXPECT_EQ(holder.values["a"], "1");
    EXPECT_EQ(holder.sent, "m");
    EXPECT_EQ(confirmed(desired, later), "xxx");
    EXPECT_FALSE(desired.pending());
}

TEST(DesiredState, ARequestThatARetryFindsMalformedIsNotDesired) {
    Holder holder;
    DesiredState desired;
    desired.recordRequest("m", errorNotConnected, began);
    holder.badRequest = true;
    EXPECT_EQ(desired.retry(holder, later).code, errorBadRequest);
    EXPECT_FALSE(desired.pending());
    EXPECT_TRUE(desired.empty());
}

//  If the value remained desired, each check would find it missing, and each retry would send it again.
TEST(DesiredState, AValueThatARetryFindsImpossibleIsNotDesired) {
    Holder holder;
    DesiredState desired;
    desired.recordValue(recordOf("a", "1"), errorTimedOut, began);
    holder.badRequest = true;
    EXPECT_EQ(desired.retry(holder, later).code, errorBadRequest);
    EXPECT_TRUE(desired.empty());
    EXPECT_EQ(desired.check(holder, later).code, errorNone);
    EXPECT_FALSE(desired.pending());
    EXPECT_FALSE(desired.refresh());
}

TEST(DesiredState, WithoutDataARefreshHasNothingToDo) {
    DesiredState desired;
    desired.recordTag(usableTag("a"), errorNone);
    EXPECT_FALSE(desired.refresh());
    EXPECT_FALSE(desired.pending());
}

//  The steps of the retry: the import, the lookup, the put and the update request.
constexpr int steps = 4;

TEST(DesiredState, EachStepOfARetryThatFailsIsRepeated) {
    for (int step = 0; step < steps; ++step)
        for (int failures = 1; failures < 8; ++failures) {
            DesiredState desired;
            desired.recordTag(usableTag("a"), errorBackendFailed);
            desired.recordValue(recordOf("a", "1"), errorBackendFailed, began);
            desired.recordLookup(tagNamed("b"), errorBackendFailed);
            desired.recordRequest("m", errorBackendFailed, began);
            Holder holder;
            holder.successes = step;
            holder.failures = failures;
            for (int attempt = 0; attempt < failures; ++attempt)
                EXPECT_EQ(desired.retry(holder, began).code, errorBackendFailed) << step;
            EXPECT_EQ(holder.requests, step + failures);
            EXPECT_EQ(desired.retry(holder, began).code, errorNone) << step;
            EXPECT_EQ(holder.requests, steps + failures);
            EXPECT_TRUE(holder.defined.contains("a"));
            EXPECT_EQ(holder.lookups, 1) << step;
            EXPECT_EQ(holder.values["a"], "1") << step;
            EXPECT_EQ(holder.sent, "m") << step;
        }
}

}  // namespace
