#include "olk_json.h"

#include "olk_json_support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace {

//  Results of the replaced localtime_r: whether it fails, and the fields that it returns, which may be no valid date.
bool fails;
const tm* told;

constexpr int64_t april = 1744362303000;  // 2025-04-11T09:05:03Z

struct outcome {
    int result;
    std::string text;
    bool operator==(const outcome&) const = default;
};

std::ostream& operator<<(std::ostream& out, const outcome& o) {
    return out << o.result << " \"" << o.text << '"';
}

outcome iso(int64_t milliseconds) {
    outcome o{-1, ""};
    o.text = written([&](olk::string& out) { o.result = olk::writeIsoTime(milliseconds, out); });
    return o;
}

//  Returns the result of writeIsoTime when localtime_r returns these fields for any time.
outcome iso_of(const tm& fields, int64_t milliseconds) {
    told = &fields;
    const outcome o = iso(milliseconds);
    told = nullptr;
    return o;
}

TEST(IsoTime, InUtcEndsWithZ) {
    const zone utc("UTC0");
    EXPECT_EQ(iso(april), (outcome{1, "2025-04-11T09:05:03Z"}));
}

TEST(IsoTime, AWholeSecondHasNoFraction) {
    const zone utc("UTC0");
    EXPECT_EQ(iso(0), (outcome{1, "1970-01-01T00:00:00Z"}));
}

TEST(IsoTime, ARemainderIsThreeDigitsAfterAPoint) {
    const zone utc("UTC0");
    EXPECT_EQ(iso(april + 123), (outcome{1, "2025-04-11T09:05:03.123Z"}));
    EXPECT_EQ(iso(april + 42), (outcome{1, "2025-04-11T09:05:03.042Z"}));
    EXPECT_EQ(iso(april + 1), (outcome{1, "2025-04-11T09:05:03.001Z"}));
    EXPECT_EQ(iso(april + 999), (outcome{1, "2025-04-11T09:05:03.999Z"}));
}

TEST(IsoTime, FiveHoursWestEndsWithMinus05) {
    const zone west("WST5");
    EXPECT_EQ(iso(april), (outcome{1, "2025-04-11T04:05:03-05:00"}));
}

TEST(IsoTime, EightHoursEastEndsWithPlus08) {
    const zone east("EST-8");
    EXPECT_EQ(iso(april + 42), (outcome{1, "2025-04-11T17:05:03.042+08:00"}));
}

TEST(IsoTime, AHalfHourOffsetShiftsTheTimeButTheSuffixHasWholeHours) {
    const zone east("EHT-5:30");
    EXPECT_EQ(iso(april), (outcome{1, "2025-04-11T14:35:03+05:00"}));
    const zone west("WHT3:30");
    EXPECT_EQ(iso(april), (outcome{1, "2025-04-11T05:35:03-03:00"}));
}

TEST(IsoTime, LessThanAnHourIsZ) {
    const zone east("EHT-0:30");
    EXPECT_EQ(iso(april), (outcome{1, "2025-04-11T09:35:03Z"}));
    const zone west("WHT0:59:59");
    EXPECT_EQ(iso(april), (outcome{1, "2025-04-11T08:05:04Z"}));
}

TEST(IsoTime, DaylightSavingChangesTheTimeButNotTheSuffix) {
    const zone summer("EST5EDT,M3.2.0,M11.1.0");
    EXPECT_EQ(iso(april), (outcome{1, "2025-04-11T05:05:03-05:00"}));
    EXPECT_EQ(iso(1736586303000), (outcome{1, "2025-01-11T04:05:03-05:00"}));
}

TEST(IsoTime, TheHoursHaveTwoDigits) {
    const zone east("EST-14");
    EXPECT_EQ(iso(april), (outcome{1, "2025-04-11T23:05:03+14:00"}));
    const zone west("WST12");
    EXPECT_EQ(iso(april), (outcome{1, "2025-04-10T21:05:03-12:00"}));
}

TEST(IsoTime, SecondsAndRemainderAreRoundedTowardZero) {
    const zone utc("UTC0");
    EXPECT_EQ(iso(-1000), (outcome{1, "1969-12-31T23:59:59Z"}));
    EXPECT_EQ(iso(-1500), (outcome{1, "1969-12-31T23:59:59.-500Z"}));
    EXPECT_EQ(iso(-1), (outcome{1, "1970-01-01T00:00:00.-01Z"}));
}

TEST(IsoTime, TheYearIsNotPadded) {
    const zone utc("UTC0");
    EXPECT_EQ(iso(-62135596800000), (outcome{1, "1-01-01T00:00:00Z"}));
    EXPECT_EQ(iso(253402300800000), (outcome{1, "10000-01-01T00:00:00Z"}));
}

TEST(IsoTime, TheExtremeArgumentsYieldATime) {
    const zone utc("UTC0");
    EXPECT_EQ(iso(std::numeric_limits<int64_t>::max()), (outcome{1, "292278994-08-17T07:12:55.807Z"}));
    EXPECT_EQ(iso(std::numeric_limits<int64_t>::min()), (outcome{1, "-292275055-05-16T16:47:05.-808Z"}));
}

TEST(IsoTime, ATimeThatCannotBeConvertedAppendsNothing) {
    fails = true;
    olk::string out("kept");
    EXPECT_EQ(olk::writeIsoTime(april, out), 0);
    fails = false;
    EXPECT_STREQ(out.c_str(), "kept");
}

TEST(IsoTime, AppendsToExistingText) {
    const zone utc("UTC0");
    olk::string out("kept ");
    EXPECT_EQ(olk::writeIsoTime(0, out), 1);
    EXPECT_STREQ(out.c_str(), "kept 1970-01-01T00:00:00Z");
}

tm fields(int year, int day, int hour, int minute) {
    tm t{};
    t.tm_year = year - 1900;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    return t;
}

TEST(IsoTime, ATextOf47CharactersIsAppended) {
    const zone utc("UTC0");
    const tm long_fields = fields(1234567890, 1234567890, 1234567890, 123);
    EXPECT_EQ(iso_of(long_fields, 0), (outcome{1, "1234567890-01-1234567890T1234567890:123:00Z"}));
    const tm longest = fields(1234567890, 1234567890, 1234567890, 1234567);
    EXPECT_EQ(iso_of(longest, 0), (outcome{1, "1234567890-01-1234567890T1234567890:1234567:00Z"}));
}

TEST(IsoTime, ATextOf48CharactersIsNotAppended) {
    const zone utc("UTC0");
    const tm too_long = fields(1234567890, 1234567890, 1234567890, 12345678);
    EXPECT_EQ(iso_of(too_long, 0), (outcome{0, ""}));
}

TEST(IsoTime, TheLengthIncludesTheSuffix) {
    const zone east("EST-8");
    const tm with_46 = fields(1234567890, 1234567890, 1234567890, 1234567);
    EXPECT_EQ(iso_of(with_46, 0), (outcome{0, ""}));
    const tm with_41 = fields(1234567890, 1234567890, 1234567890, 12);
    EXPECT_EQ(iso_of(with_41, 0), (outcome{1, "1234567890-01-1234567890T1234567890:12:00+08:00"}));
}

TEST(IsoTime, TheLengthIncludesTheFraction) {
    const zone utc("UTC0");
    const tm with_47 = fields(1234567890, 1234567890, 1234567890, 123);
    EXPECT_EQ(iso_of(with_47, 5), (outcome{1, "1234567890-01-1234567890T1234567890:123:00.005Z"}));
    const tm with_48 = fields(1234567890, 1234567890, 1234567890, 1234);
    EXPECT_EQ(iso_of(with_48, 5), (outcome{0, ""}));
}

TEST(IsoTime, ExtremeFieldsAppendNothing) {
    const zone east("EST-8");
    tm huge{};
    huge.tm_year = std::numeric_limits<int>::max();
    huge.tm_mon = huge.tm_mday = huge.tm_hour = huge.tm_min = huge.tm_sec = std::numeric_limits<int>::min() + 5;
    EXPECT_EQ(iso_of(huge, -999), (outcome{0, ""}));
}

}  // namespace

extern "C" tm* __real_localtime_r(const time_t* seconds, tm* local);
extern "C" tm* __wrap_localtime_r(const time_t* seconds, tm* local) {
    if (fails)
        return nullptr;
    if (told == nullptr)
        return __real_localtime_r(seconds, local);
    *local = *told;
    return local;
}
