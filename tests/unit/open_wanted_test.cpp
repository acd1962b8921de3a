#include "engine/wanted.h"

#include "open_support.h"

#include <gtest/gtest.h>
#include <map>

namespace {

using namespace opentest;
using namespace rdbopen;

//  A server that holds tags and values, and fails as often as it is told to.
class Holder : public Backend {
public:
    std::map<std::string, std::string> values;
    std::map<std::string, bool> tags;
    std::string sent;
    int failures = 0;
    int lookups = 0;

    std::string label() const override { return "holder"; }
    bool serves(Service) const noexcept override { return true; }
    Status open(const Waiter&) override { return {}; }
    void close() noexcept override {}
    Status tagGet(RdbTag& tag) override {
        if (failing())
            return backendFailed("x");
        ++lookups;
        tag.tagclass = tags.contains(tag.name) ? RDB_TAG_CLASS_USABLE : 0;
        return {tags.contains(tag.name) ? errorNone : errorNoSuchTag, {}};
    }
    Status tagImport(const RdbTag& tag) override {
        if (failing())
            return backendFailed("x");
        tags[tag.name] = true;
        return {};
    }
    Status put(std::span<const RdbSnapshot> records) override {
        if (failing())
            return backendFailed("x");
        if (!tags.contains(records[0].name))
            return {errorNoSuchTag, {}};
        values[records[0].name] = records[0].value;
        return {};
    }
    Status message(std::string_view text, std::string&) override {
        if (failing())
            return backendFailed("x");
        sent = text;
        return {};
    }
    Status checkValue(const RdbSnapshot& value) override {
        const auto found = values.find(value.name);
        return {found != values.end() && found->second == value.value ? errorNone : errorNotHeld, {}};
    }
    Status checkMessage(std::string_view text) override { return {sent == text ? errorNone : errorNotHeld, {}}; }

private:
    bool failing() { return failures > 0 && failures-- > 0; }
};

TEST(Wanted, NothingIsPendingAtFirst) {
    EXPECT_FALSE(Wanted().pending());
}

TEST(Wanted, WhatSucceededIsNotPending) {
    Wanted wanted;
    wanted.noteTag(usableTag("t"), errorNone);
    wanted.noteValue(recordOf("t", "1"), errorNone);
    wanted.noteMessage("m", errorNone);
    EXPECT_FALSE(wanted.pending());
}

TEST(Wanted, EveryPassingFailureIsPending) {
    for (const int code : {errorBackendFailed, errorServerRefused, errorTimedOut, errorNotConnected}) {
        Wanted tag;
        tag.noteTag(usableTag("t"), code);
        Wanted value;
        value.noteValue(recordOf("t", "1"), code);
        Wanted message;
        message.noteMessage("m", code);
        EXPECT_TRUE(tag.pending() && value.pending() && message.pending()) << code;
    }
}

TEST(Wanted, ALookupIsPendingUntilTheServerAnswersIt) {
    for (const int code : {errorBackendFailed, errorServerRefused, errorTimedOut, errorNotConnected}) {
        Wanted wanted;
        wanted.noteLookup(tagNamed("t"), code);
        EXPECT_TRUE(wanted.tagPending()) << code;
        Holder holder;
        holder.failures = 1;
        EXPECT_EQ(wanted.completeTag(holder).code, errorBackendFailed);
        EXPECT_TRUE(wanted.tagPending()) << code;
        EXPECT_EQ(wanted.completeTag(holder).code, errorNone);
        EXPECT_FALSE(wanted.pending()) << code;
        EXPECT_EQ(holder.lookups, 1);
    }
}

TEST(Wanted, AnAnsweredLookupIsNotPending) {
    for (const int code : {errorNone, errorNoSuchTag, errorNotSupported}) {
        Wanted wanted;
        wanted.noteLookup(tagNamed("t"), errorServerRefused);
        wanted.noteLookup(tagNamed("t"), code);
        EXPECT_FALSE(wanted.pending()) << code;
    }
}

TEST(Wanted, AnImportAnswersTheLookupToo) {
    Wanted wanted;
    wanted.noteLookup(tagNamed("t"), errorServerRefused);
    wanted.noteTag(usableTag("t"), errorServerRefused);
    Holder holder;
    EXPECT_EQ(wanted.completeTag(holder).code, errorNone);
    EXPECT_FALSE(wanted.pending());
    EXPECT_EQ(holder.lookups, 0);
}

TEST(Wanted, AllTagsComeBeforeTheFirstValue) {
    Wanted wanted;
    wanted.noteValue(recordOf("a", "1"), errorBackendFailed);
    wanted.noteTag(usableTag("b"), errorBackendFailed);
    wanted.noteLookup(tagNamed("c"), errorBackendFailed);
    Holder holder;
    EXPECT_EQ(wanted.complete(holder).code, errorNoSuchTag);
    EXPECT_TRUE(holder.tags.contains("b"));
    EXPECT_EQ(holder.lookups, 1);
}

TEST(Wanted, ARefusalForGoodLeavesTheEarlierWishInPlace) {
    Wanted wanted;
    wanted.noteMessage("m", errorNone);
    wanted.noteMessage("malformed", errorBadRequest);
    Holder holder;
    EXPECT_EQ(wanted.check(holder).code, errorNone);
    EXPECT_EQ(wanted.complete(holder).code, errorNone);
    EXPECT_EQ(holder.sent, "m");
}

TEST(Wanted, AnEmptiedServerGetsEverythingBack) {
    Wanted wanted;
    for (const char* name : {"a", "b", "c"}) {
        wanted.noteTag(usableTag(name), errorNone);
        wanted.noteValue(recordOf(name, "of " + std::string(name)), errorNone);
    }
    wanted.noteMessage("m", errorNone);
    Holder emptied;
    EXPECT_EQ(wanted.check(emptied).code, errorNone);
    EXPECT_TRUE(wanted.pending());
    EXPECT_EQ(wanted.complete(emptied).code, errorNone);
    EXPECT_FALSE(wanted.pending());
    EXPECT_EQ(emptied.values, (std::map<std::string, std::string>{{"a", "of a"}, {"b", "of b"}, {"c", "of c"}}));
    EXPECT_EQ(emptied.sent, "m");
}

TEST(Wanted, WhereverTheCompletionFailsItIsTakenUpAgain) {
    for (int failures = 1; failures < 8; ++failures) {
        Wanted wanted;
        wanted.noteTag(usableTag("a"), errorBackendFailed);
        wanted.noteValue(recordOf("a", "1"), errorBackendFailed);
        wanted.noteMessage("m", errorBackendFailed);
        Holder holder;
        holder.failures = failures;
        for (int attempt = 0; attempt < failures; ++attempt)
            EXPECT_EQ(wanted.complete(holder).code, errorBackendFailed);
        EXPECT_EQ(wanted.complete(holder).code, errorNone);
        EXPECT_EQ(holder.values["a"], "1");
        EXPECT_EQ(holder.sent, "m");
    }
}

}  // namespace
