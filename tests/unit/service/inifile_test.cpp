#include "inifile.h"

#include "ini_model.h"
#include "service_platform.h"
#include "service_support.h"

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

namespace {

std::vector<IniEvent> eventsAt(const char* path) {
    std::vector<IniEvent> events;
    EXPECT_TRUE(read_ini_file(path, [&](const auto& section, const auto& key, const auto& value) {
        events.emplace_back(section, key, value);
        return false;
    }));
    return events;
}

std::vector<IniEvent> eventsOf(const std::string& bytes) {
    const MemoryFile file;
    file.write(bytes);
    return eventsAt(file.path());
}

using Events = std::vector<IniEvent>;

class IniReader : public testing::Test {
protected:
    IniReader() { platform::reset(); }
    ~IniReader() override { platform::reset(); }
};

class ExeDir : public IniReader {
protected:
    //  Returns the result of getExeDir for a link with this target.
    static std::string dirOf(const std::string& target) {
        platform::hooks().readlink = [&](const char*, char* buffer, std::size_t size) {
            const std::size_t length = std::min(size, target.size());
            std::memcpy(buffer, target.data(), length);
            return static_cast<ssize_t>(length);
        };
        return getExeDir();
    }
};

TEST_F(IniReader, ReadsEveryRowOfTheTable) {
    const std::vector<Lines> rows = readTable("ini_files.txt");
    ASSERT_GT(rows.size(), 70U);
    for (const Lines& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row));
        std::vector<IniEvent> expected;
        for (std::size_t i = 1; i < row.size(); ++i) {
            const std::size_t first = row[i].find('|');
            const std::size_t second = row[i].find('|', first + 1);
            expected.emplace_back(row[i].substr(0, first), row[i].substr(first + 1, second - first - 1),
                                  row[i].substr(second + 1));
        }
        EXPECT_EQ(eventsOf(row[0]), expected);
    }
}

TEST_F(IniReader, AnEmptyFileIsReadAndCallsNothing) {
    EXPECT_EQ(eventsOf(""), Events{});
}

TEST_F(IniReader, AByteOrderMarkAtTheStartIsSkipped) {
    EXPECT_EQ(eventsOf("\xEF\xBB\xBF[s]\nk = v\n"), eventsOf("[s]\nk = v\n"));
}

TEST_F(IniReader, ALineWithoutEqualSignBecomesTheStartOfTheNextKey) {
    EXPECT_EQ(eventsOf("junk\nhostname=h"), (Events{{"", "junkhostname", "h"}}));
}

TEST_F(IniReader, BlanksInsideAKeyAreRemoved) {
    EXPECT_EQ(eventsOf("rdb url = x"), (Events{{"", "rdburl", "x"}}));
}

TEST_F(IniReader, AnInlineCommentEndsAValue) {
    EXPECT_EQ(eventsOf("rdburl = x ; comment\nk=v"), (Events{{"", "rdburl", "x"}, {"", "k", "v"}}));
}

TEST_F(IniReader, OnlyALineFeedEndsTheLineAfterAValue) {
    EXPECT_EQ(eventsOf("a=1\rb=2\rc=3\nd=4"), (Events{{"", "a", "1"}, {"", "d", "4"}}));
}

TEST_F(IniReader, ACarriageReturnEndsAComment) {
    EXPECT_EQ(eventsOf("#a\rb=2"), (Events{{"", "b", "2"}}));
}

TEST_F(IniReader, ASectionHeaderCutByTheEndOfTheFileCallsNothing) {
    EXPECT_EQ(eventsOf("[abc"), Events{});
}

TEST_F(IniReader, LongKeysSectionsAndValuesAreNotShortened) {
    const std::string s(70000, 's'), k(80000, 'k'), v(90000, 'v');
    EXPECT_EQ(eventsOf("[" + s + "]" + k + "=" + v), (Events{{s, "", ""}, {s, k, v}}));
}

TEST_F(IniReader, ADirectoryIsReadAsAnEmptyFile) {
    const TempFolder folder;
    EXPECT_EQ(eventsAt(folder.path().c_str()), Events{});
}

TEST_F(IniReader, AFileThatCannotBeOpenedReturnsFalseAndCallsNothing) {
    const TempFolder folder;
    int calls = 0;
    EXPECT_FALSE(read_ini_file(folder.file("missing").c_str(), [&](auto&, auto&, auto&) { return ++calls != 0; }));
    EXPECT_EQ(calls, 0);
}

TEST_F(IniReader, OpensTheGivenPathAsText) {
    std::string opened;
    platform::hooks().fopen = [&](const char* path, const char* mode) {
        opened = std::string(path) + " " + mode;
        return nullptr;
    };
    EXPECT_FALSE(read_ini_file("/some/addrpubd.ini", [](auto&, auto&, auto&) { return false; }));
    EXPECT_EQ(opened, "/some/addrpubd.ini rt");
}

TEST_F(IniReader, ACallbackThatReturnsTrueAtAValueStopsTheReading) {
    const MemoryFile file;
    file.write("a=1\nb=2\nc=3\n");
    Lines keys;
    EXPECT_TRUE(read_ini_file(file.path(), [&](auto&, const std::string& key, auto&) {
        keys.push_back(key);
        return key == "b";
    }));
    EXPECT_EQ(keys, (Lines{"a", "b"}));
}

TEST_F(IniReader, ACallbackThatReturnsTrueAtASectionHeaderStopsTheReading) {
    const MemoryFile file;
    file.write("a=1\n[s]\nb=2\n");
    int calls = 0;
    EXPECT_TRUE(read_ini_file(file.path(), [&](const std::string& section, auto&, auto&) {
        ++calls;
        return section == "s";
    }));
    EXPECT_EQ(calls, 2);
}

TEST_F(IniReader, AlwaysClosesTheFile) {
    const TempFolder folder;
    const MemoryFile file;
    const long before = platform::open_files;
    for (const char* bytes : {"", "[cut", "a=1\n", "a", "a=1;"}) {
        file.write(bytes);
        for (const bool stop : {false, true})
            read_ini_file(file.path(), [stop](auto&, auto&, auto&) { return stop; });
    }
    read_ini_file(folder.path().c_str(), [](auto&, auto&, auto&) { return false; });
    read_ini_file(folder.file("missing").c_str(), [](auto&, auto&, auto&) { return false; });
    EXPECT_EQ(platform::open_files, before);
}

TEST_F(ExeDir, IsTheDirectoryOfThisProgramWithATrailingSlash) {
    const std::string dir = getExeDir();
    ASSERT_FALSE(dir.empty());
    EXPECT_EQ(dir.back(), '/');
    char target[1024] = {};
    ASSERT_GT(readlink("/proc/self/exe", target, sizeof target - 1), 0);
    EXPECT_EQ(dir, std::string(target).substr(0, std::string(target).rfind('/') + 1));
}

TEST_F(ExeDir, ReadsAtMost1023BytesOfTheExecutablesLink) {
    std::string asked;
    platform::hooks().readlink = [&](const char* path, char*, std::size_t size) {
        asked = path + std::string(" ") + std::to_string(size);
        return -1;
    };
    getExeDir();
    EXPECT_EQ(asked, "/proc/self/exe 1023");
}

TEST_F(ExeDir, IsEmptyWhenTheLinkCannotBeRead) {
    platform::hooks().readlink = [](const char*, char*, std::size_t) { return -1; };
    EXPECT_EQ(getExeDir(), "");
}

TEST_F(ExeDir, IsEmptyWhenTheLinkIsEmpty) {
    EXPECT_EQ(dirOf(""), "");
}

TEST_F(ExeDir, AFileInTheRootReturnsTheRoot) {
    EXPECT_EQ(dirOf("/addrpubd"), "/");
}

TEST_F(ExeDir, ATargetThatEndsWithASlashIsUnchanged) {
    EXPECT_EQ(dirOf("/opt/x/"), "/opt/x/");
}

TEST_F(ExeDir, ATargetWithoutASlashReturnsAnEmptyText) {
    EXPECT_EQ(dirOf("addrpubd"), "");
}

TEST_F(ExeDir, ATargetOf1023BytesEndsAtItsLastSlash) {
    EXPECT_EQ(dirOf("/opt/" + std::string(1018, 'x')), "/opt/");
    EXPECT_EQ(dirOf("/" + std::string(1021, 'x') + "/"), "/" + std::string(1021, 'x') + "/");
    EXPECT_EQ(dirOf(std::string(1023, 'x')), "");
}

}  // namespace
