#include "engine/desired_state.h"

#include "open_support.h"

#include <gtest/gtest.h>
#include <map>

namespace {

using namespace opentest;
using namespace rdbopen;

//  A server that stores tags and values. The test sets how often it fails.
class Holder : public Backend, public TagBackend, public UpdateBackend {
public:
    std::map<std::string, std::string> values;
    std::map<std::string, bool> defined;
    std::string sent;
    int failures = 0;
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
        if (!defined.contains(records[0].name))
            return {errorNoSuchTag, {}};
        values[records[0].name] = records[0].value;
        return {};
    }
    Status apply(std::string_view text, std::string&) override {
        if (failing())
            return backendFailed("x");
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
    bool failing() { return failures > 0 && failures-- > 0; }
};

TEST(DesiredState, NothingIsPendingAtFirst) {
    EXPECT_FALSE(DesiredState().pending());
}

TEST(DesiredState, ASuccessfulRequestIsNotPending) {
    DesiredState desired;
    desired.recordTag(usableTag("t"), errorNone);
    desired.recordValue(recordOf("t", "1"), errorNone);
    desired.recordRequest("m", errorNone);
    EXPECT_FALSE(desired.pending());
}

TEST(DesiredState, EveryTemporaryFailureIsPending) {
    for (const int code : {errorBackendFailed, errorServerRefused, errorTimedOut, errorNotConnected}) {
        DesiredState tag;
        tag.recordTag(usableTag("t"), code);
        DesiredState value;
        value.recordValue(recordOf("t", "1"), code);
        DesiredState message;
        message.recordRequest("m", code);
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
    desired.recordValue(recordOf("a", "1"), errorBackendFailed);
    desired.recordTag(usableTag("b"), errorBackendFailed);
    desired.recordLookup(tagNamed("c"), errorBackendFailed);
    Holder holder;
    EXPECT_EQ(desired.retry(holder).code, errorNoSuchTag);
    EXPECT_TRUE(holder.defined.contains("b"));
    EXPECT_EQ(holder.lookups, 1);
}

TEST(DesiredState, AFinalRefusalKeepsTheEarlierValue) {
    DesiredState desired;
    desired.recordRequest("m", errorNone);
    desired.recordRequest("malformed", errorBadRequest);
    Holder holder;
    EXPECT_EQ(desired.check(holder).code, errorNone);
    EXPECT_EQ(desired.retry(holder).code, errorNone);
    EXPECT_EQ(holder.sent, "m");
}

TEST(DesiredState, AnEmptiedServerReceivesEverythingAgain) {
    DesiredState desired;
    for (const char* name : {"a", "b", "c"}) {
        desired.recordTag(usableTag(name), errorNone);
        desired.recordValue(recordOf(name, "of " + std::string(name)), errorNone);
    }
    desired.recordRequest("m", errorNone);
    Holder emptied;
    EXPECT_EQ(desired.check(emptied).code, errorNone);
    EXPECT_TRUE(desired.pending());
    EXPECT_EQ(desired.retry(emptied).code, errorNone);
    EXPECT_FALSE(desired.pending());
    EXPECT_EQ(emptied.values, (std::map<std::string, std::string>{{"a", "of a"}, {"b", "of b"}, {"c", "of c"}}));
    EXPECT_EQ(emptied.sent, "m");
}

TEST(DesiredState, ARetryThatFailsAtAnyStepIsContinued) {
    for (int failures = 1; failures < 8; ++failures) {
        DesiredState desired;
        desired.recordTag(usableTag("a"), errorBackendFailed);
        desired.recordValue(recordOf("a", "1"), errorBackendFailed);
        desired.recordRequest("m", errorBackendFailed);
        Holder holder;
        holder.failures = failures;
        for (int attempt = 0; attempt < failures; ++attempt)
            EXPECT_EQ(desired.retry(holder).code, errorBackendFailed);
        EXPECT_EQ(desired.retry(holder).code, errorNone);
        EXPECT_EQ(holder.values["a"], "1");
        EXPECT_EQ(holder.sent, "m");
    }
}

}  // namespace
