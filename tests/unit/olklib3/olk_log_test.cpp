#include "olk_log.h"

#include "olk_allocator.h"
#include "olk_prtlog.h"
#include "olk_udplog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>

namespace {

//  If not 0, the result that snprintf returns.
int claimed_length;

std::string name_of(int level) {
    char buffer[olk::level_name_size];
    std::memset(buffer, 'x', sizeof buffer);
    return olk::level_name(level, buffer);
}

//  A minimal log. It only counts its destructions.
struct bare_log : olk::ilog {
    static inline int destroyed = 0;
    ~bare_log() override { ++destroyed; }
    int open(const char*) override { return 0; }
    int add(int, const char*, ...) override { return 0; }
    int append(int, const char*, ...) override { return 0; }
    int getlevel() override { return 0; }
    void setlevel(int) override {}
    void runtime() override {}
    void release() override { delete this; }
};

TEST(LevelName, ErrIs10) {
    EXPECT_EQ(name_of(10), "err");
    EXPECT_EQ(olk::level_err, 10);
}
TEST(LevelName, WrnIs20) {
    EXPECT_EQ(name_of(20), "wrn");
    EXPECT_EQ(olk::level_wrn, 20);
}
TEST(LevelName, InfIs30AndMsgIsNeverReturned) {
    EXPECT_EQ(name_of(30), "inf");
    EXPECT_EQ(olk::level_inf, 30);
}
TEST(LevelName, MorIs31) {
    EXPECT_EQ(name_of(31), "mor");
    EXPECT_EQ(olk::level_mor, 31);
}
TEST(LevelName, DbgIs40) {
    EXPECT_EQ(name_of(40), "dbg");
    EXPECT_EQ(olk::level_dbg, 40);
}
TEST(LevelName, AllIs999) {
    EXPECT_EQ(name_of(999), "all");
    EXPECT_EQ(olk::level_all, 999);
}

TEST(LevelName, ANumberWithoutANameIsWrittenInDigits) {
    EXPECT_EQ(name_of(35), "35");
    EXPECT_EQ(name_of(0), "0");
    EXPECT_EQ(name_of(-1), "-1");
    EXPECT_EQ(name_of(998), "998");
    EXPECT_EQ(name_of(1000), "1000");
}

TEST(LevelName, TheExtremesFitTheBuffer) {
    EXPECT_EQ(name_of(std::numeric_limits<int>::max()), "2147483647");
    EXPECT_EQ(name_of(std::numeric_limits<int>::min()), "-2147483648");
}

TEST(LevelName, ANumberOf16CharactersIsWrittenAsNdf) {
    claimed_length = 16;
    EXPECT_EQ(name_of(35), "ndf");
    claimed_length = 15;
    EXPECT_EQ(name_of(35), "35");
    claimed_length = 0;
}

TEST(LevelName, ANumberThatCannotBeFormattedIsWrittenAsNdf) {
    claimed_length = -1;
    EXPECT_EQ(name_of(35), "ndf");
    claimed_length = 0;
}

TEST(LevelName, TheBufferHas16Bytes) {
    EXPECT_EQ(olk::level_name_size, 16u);
}

TEST(LevelFromText, EveryNameYieldsItsNumber) {
    EXPECT_EQ(olk::level_from_text("err"), 10);
    EXPECT_EQ(olk::level_from_text("wrn"), 20);
    EXPECT_EQ(olk::level_from_text("inf"), 30);
    EXPECT_EQ(olk::level_from_text("msg"), 30);
    EXPECT_EQ(olk::level_from_text("mor"), 31);
    EXPECT_EQ(olk::level_from_text("dbg"), 40);
    EXPECT_EQ(olk::level_from_text("all"), 999);
}

TEST(LevelFromText, NamesAreAcceptedInAnyCase) {
    EXPECT_EQ(olk::level_from_text("MSG"), 30);
    EXPECT_EQ(olk::level_from_text("All"), 999);
    EXPECT_EQ(olk::level_from_text("eRR"), 10);
}

TEST(LevelFromText, AnEmptyTextIs30) {
    EXPECT_EQ(olk::level_from_text(""), 30);
}

TEST(LevelFromText, AZeroIs30) {
    EXPECT_EQ(olk::level_from_text("0"), 30);
    EXPECT_EQ(olk::level_from_text("-0"), 30);
    EXPECT_EQ(olk::level_from_text("0x28"), 30);
}

TEST(LevelFromText, ATextThatIsNotANumberIs30) {
    EXPECT_EQ(olk::level_from_text("abc"), 30);
    EXPECT_EQ(olk::level_from_text("zero"), 30);
    EXPECT_EQ(olk::level_from_text("-"), 30);
}

TEST(LevelFromText, ANumberIsUsedUnchanged) {
    EXPECT_EQ(olk::level_from_text("35"), 35);
    EXPECT_EQ(olk::level_from_text("-1"), -1);
    EXPECT_EQ(olk::level_from_text("2147483647"), 2147483647);
    EXPECT_EQ(olk::level_from_text("010"), 10) << "decimal, not octal";
}

TEST(LevelFromText, LeadingDigitsAreEnough) {
    EXPECT_EQ(olk::level_from_text("35abc"), 35);
    EXPECT_EQ(olk::level_from_text(" 35"), 35);
    EXPECT_EQ(olk::level_from_text("+35"), 35);
}

TEST(LevelFromText, PartOfANameIsNotAccepted) {
    EXPECT_EQ(olk::level_from_text("dbgx"), 30);
    EXPECT_EQ(olk::level_from_text("db"), 30);
    EXPECT_EQ(olk::level_from_text(" dbg"), 30);
}

//  Returns the level of a text without the library: from a table of names, or from the decimal digits.
int model(const std::string& text) {
    static const std::pair<const char*, int> rows[] = {{"err", 10}, {"wrn", 20}, {"inf", 30}, {"msg", 30},
                                                       {"mor", 31}, {"dbg", 40}, {"all", 999}};
    if (text.empty())
        return 30;
    std::string lower = text;
    for (char& c : lower)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    for (const auto& [name, number] : rows)
        if (lower == name)
            return number;
    size_t at = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
    const bool negative = at < text.size() && text[at] == '-';
    if (at < text.size() && (text[at] == '-' || text[at] == '+'))
        ++at;
    int64_t number = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
        number = number * 10 + (text[at] - '0');
    if (negative)
        number = -number;
    return number == 0 ? 30 : static_cast<int>(number);
}

TEST(LevelFromText, AgreesWithTheModelOver200000Texts) {
    static const std::string letters = "errwninfmsgodbalERWNIMSGODBAL0123456789-+ \tx";
    static const char* const names[] = {"err", "wrn", "inf", "msg", "mor", "dbg", "all"};
    std::mt19937 random(20250411);
    for (int i = 0; i < 200000; ++i) {
        std::string text;
        if (i % 4 == 0)
            text = names[random() % 7];
        else if (i % 4 == 1)
            text = std::to_string(static_cast<int>(random()));
        else
            for (size_t n = random() % 9; n != 0; --n)
                text.push_back(letters[random() % letters.size()]);
        if (i % 8 == 0)
            text[random() % 3] ^= ' ';
        if (i % 16 == 4)
            text.push_back(letters[random() % letters.size()]);
        ASSERT_EQ(olk::level_from_text(text.c_str()), model(text)) << '"' << text << '"';
    }
}

//  Returns the vtable index of a virtual operation. A pointer to a virtual member contains the byte offset of its slot,
//  plus 1. On arm64 the 1 is in the second word, because every bit of the first word may be part of an address.
template <class OPERATION>
ptrdiff_t slot(OPERATION operation) {
    ptrdiff_t words[2];
    static_assert(sizeof operation == sizeof words);
    std::memcpy(words, &operation, sizeof words);
#ifdef __aarch64__
    EXPECT_EQ(words[1] % 2, 1) << "not virtual";
#else
    EXPECT_EQ(words[0] % 8, 1) << "not virtual";
#endif
    return words[0] / 8;
}

TEST(Log, TheVirtualOperationsAreInThisOrder) {
    EXPECT_TRUE(std::has_virtual_destructor_v<olk::ilog>);
    //  A virtual destructor occupies the first two slots.
    EXPECT_EQ(slot(&olk::ilog::open), 2);
    EXPECT_EQ(slot(&olk::ilog::add), 3);
    EXPECT_EQ(slot(&olk::ilog::append), 4);
    EXPECT_EQ(slot(&olk::ilog::push), 5);
    EXPECT_EQ(slot(&olk::ilog::getlevel), 6);
    EXPECT_EQ(slot(&olk::ilog::setlevel), 7);
    EXPECT_EQ(slot(&olk::ilog::runtime), 8);
    EXPECT_EQ(slot<void (olk::ilog::*)()>(&olk::ilog::release), 9);
}

TEST(Log, TheInterfaceHasNoData) {
    EXPECT_TRUE(std::is_abstract_v<olk::ilog>);
    EXPECT_EQ(sizeof(olk::ilog), sizeof(void*));
}

TEST(Log, BothLogsDeriveFromTheInterface) {
    EXPECT_TRUE((std::is_convertible_v<olk::prtlog*, olk::ilog*>));
    EXPECT_TRUE((std::is_convertible_v<olk::udplog*, olk::ilog*>));
}

__attribute__((format(printf, 4, 5))) int push(olk::ilog& log, int level, const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = log.push(level, tag, format, args);
    va_end(args);
    return result;
}

TEST(Log, TheBasesPushDoesNothingAndReturns0) {
    bare_log log;
    EXPECT_EQ(push(log, 10, "tag", "%d", 1), 0);
}

TEST(Log, ReleaseDestroysTheObject) {
    bare_log::destroyed = 0;
    olk::ilog* log = new bare_log;
    log->release();
    EXPECT_EQ(bare_log::destroyed, 1);
}

TEST(Log, ReleaseOfANullLogDoesNothing) {
    olk::release(nullptr);
}

TEST(Log, ReleaseThroughTheFunctionDestroysTheObject) {
    bare_log::destroyed = 0;
    olk::release(new bare_log);
    EXPECT_EQ(bare_log::destroyed, 1);
}

//  Checks that an object of type LOG is in the process-wide allocator's class for its size.
template <class LOG>
void expect_pooled() {
    const olk::allocator& pool = *olk::get_olk_allocator();
    int i = 0;
    while (pool.classes[i]->blksize < sizeof(LOG))
        ++i;
    LOG* log = new LOG;
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(olk::allocator::usable_size(log), pool.classes[i]->blksize);
    const uint32_t taken = pool.classes[i]->freecount;
    log->release();
    EXPECT_EQ(pool.classes[i]->freecount, taken + 1);
}

TEST(Log, AConsoleLogLivesInThePooledAllocator) {
    expect_pooled<olk::prtlog>();
}

TEST(Log, AUdpLogLivesInThePooledAllocator) {
    expect_pooled<olk::udplog>();
}

struct large_log : bare_log {
    char ballast[5 << 20];
};

TEST(Log, AnObjectLargerThanAllClassesIsABigBlock) {
    const uint32_t before = olk::get_olk_allocator()->bigcount;
    olk::ilog* log = new large_log;
    EXPECT_EQ(olk::get_olk_allocator()->bigcount, before + 1);
    log->release();
    EXPECT_EQ(olk::get_olk_allocator()->bigcount, before);
}

TEST(Log, NewWithoutMemoryReturnsNull) {
    struct impossible_log : bare_log {
        char ballast[int64_t{1} << 47];
    };
    const olk::ilog* log = new impossible_log;
    EXPECT_EQ(log, nullptr);
}

}  // namespace

extern "C" int __wrap_snprintf(char* text, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(text, size, format, args);
    va_end(args);
    return claimed_length != 0 ? claimed_length : length;
}
