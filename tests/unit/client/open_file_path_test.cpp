//  Tests of resolveFile. The tests of FilePathLink give links and folders to other users. Only root can do this, so
//  these tests are skipped for other users.
#include "files/path.h"

#include "open_support.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr uid_t stranger = 1234;
constexpr uid_t neighbour = 2345;

class FilePath : public testing::Test {
protected:
    FilePath() { std::filesystem::create_directories(folder.file("a/b")); }
    std::string resolve(const std::string& path) { return resolveFile(path, place).reason; }
    void link(const std::string& target, const std::string& name) {
        ASSERT_EQ(symlink(target.c_str(), folder.file(name).c_str()), 0);
    }

    const Folder folder;
    FilePlace place;
};

TEST_F(FilePath, APathWithoutLinksIsUnchanged) {
    EXPECT_EQ(resolve(folder.file("a/b/new")), "");
    EXPECT_EQ(place.path(), folder.file("a/b/new"));
    EXPECT_EQ(place.temporary(), folder.file("a/b/.new.addrpubd.tmp"));
    EXPECT_EQ(place.lock(), folder.file("a/b/.new.addrpubd.lock"));
}

TEST_F(FilePath, AFileInTheRootIsResolved) {
    EXPECT_EQ(resolve("/new"), "");
    EXPECT_EQ(place.path(), "/new");
}

TEST_F(FilePath, DotsAndDoubledSlashesAreRemoved) {
    EXPECT_EQ(resolve(folder.file("a//./b/..//../a/b/new")), "");
    EXPECT_EQ(place.path(), folder.file("a/b/new"));
    EXPECT_EQ(resolve("/../../new"), "");
    EXPECT_EQ(place.path(), "/new");
}

TEST_F(FilePath, LinksToFilesAndFoldersAreFollowed) {
    link("../a/b", "a/near");
    link(folder.file("a"), "far");
    link("near/new", "a/file");
    for (const char* path : {"a/near/new", "far/b/new", "far/near/new", "a/file", "far/file", "a/b/../near/new"}) {
        EXPECT_EQ(resolve(folder.file(path)), "");
        EXPECT_EQ(place.path(), folder.file("a/b/new")) << path;
    }
}

TEST_F(FilePath, TwoDotsAfterALinkMeanTheParentOfItsTarget) {
    link("a/b", "near");
    EXPECT_EQ(resolve(folder.file("near/../new")), "");
    EXPECT_EQ(place.path(), folder.file("a/new"));
}

TEST_F(FilePath, ALoopOfLinksIsAFailure) {
    link("loop", "loop");
    link("two", "one");
    link("one", "two");
    for (const char* name : {"loop", "one", "loop/file"})
        EXPECT_NE(resolve(folder.file(name)).find(errorText(ELOOP)), std::string::npos) << name;
}

TEST_F(FilePath, APathWithoutAFolderOrWithoutAFileNameIsAFailure) {
    writeText(folder.file("file"), "");
    link("a/", "folder");
    for (const auto& [path, error] :
         {std::pair("no/new", ENOENT), std::pair("file/new", ENOTDIR), std::pair("file/../new", ENOTDIR),
          std::pair("a/", EISDIR), std::pair("a/.", EISDIR), std::pair("a/..", EISDIR), std::pair("folder", EISDIR)})
        EXPECT_NE(resolve(folder.file(path)).find(errorText(error)), std::string::npos) << path << ' ' << place.path();
}

//  One case: the mode and the owner of a folder, the owner of a link in it, and whether the link is followed.
struct Link {
    const char* name;
    mode_t mode;
    uid_t folderOwner;
    uid_t linkOwner;
    bool followed;
};

class FilePathLink : public FilePath, public testing::WithParamInterface<Link> {
protected:
    void SetUp() override {
        const Link& row = GetParam();
        std::filesystem::create_directory(shared);
        link("../a/b/new", "shared/file");
        link("../a", "shared/folder");
        for (const char* name : {"/file", "/folder"})
            if (lchown((shared + name).c_str(), row.linkOwner, 0) != 0)
                GTEST_SKIP() << "needs root";
        ASSERT_EQ(chown(shared.c_str(), row.folderOwner, 0), 0);
        ASSERT_EQ(chmod(shared.c_str(), row.mode), 0);
    }

    const std::string shared = folder.file("shared");
};

TEST_P(FilePathLink, IsFollowedToAFileAndToAFolderOrRefused) {
    for (const auto& [name, rest] : {std::pair("/file", ""), std::pair("/folder", "/b/new")}) {
        const std::string reason = resolve(shared + name + rest);
        const std::string refusal =
            "the link " + shared + name + " in a folder that others can write belongs to somebody else";
        EXPECT_EQ(reason, GetParam().followed ? "" : refusal);
        EXPECT_EQ(place.path() == folder.file("a/b/new"), GetParam().followed);
    }
}

TEST_P(FilePathLink, IsCheckedAlsoAfterAPermittedLink) {
    link("shared/folder", "own");
    EXPECT_EQ(resolve(folder.file("own/b/new")).empty(), GetParam().followed);
}

constexpr Link links[] = {
    {"OwnInASharedFolder", 01777, 0, 0, true},
    {"OwnInASharedFolderOfAStranger", 01777, stranger, 0, true},
    {"OfTheFoldersOwner", 01777, stranger, stranger, true},
    {"OfAStranger", 01777, 0, stranger, false},
    {"OfANeighbourInAStrangersFolder", 01777, stranger, neighbour, false},
    {"OfAStrangerInAStickyFolderOfAGroup", 01775, 0, stranger, true},
    {"OfAStrangerWhereTheGroupMayNotWrite", 01703, 0, stranger, false},
    {"OfAStrangerInAStickyFolderOfOneUser", 01755, 0, stranger, true},
    {"OfAStrangerInAFolderThatIsNotSticky", 0777, 0, stranger, true},
};

INSTANTIATE_TEST_SUITE_P(EachLink, FilePathLink, testing::ValuesIn(links),
                         [](const auto& test) { return test.param.name; });

TEST_F(FilePath, TheFirstSharedFolderOfThePathIsReported) {
    resolve(folder.file("a/b/new"));
    EXPECT_EQ(place.shared, "/tmp/");
}

//  Most tests use a folder in the shared folder /tmp. This test uses a folder in its working directory.
TEST_F(FilePath, OfTwoSharedFoldersTheUpperOneIsReported) {
    const std::string here = std::filesystem::current_path().string() + "/shared." + std::to_string(getpid());
    std::filesystem::create_directories(here + "/a/more");
    ASSERT_EQ(chmod((here + "/a/more").c_str(), 01777), 0);
    ASSERT_EQ(chmod((here + "/a").c_str(), 01707), 0);
    resolve(here);
    const std::string outer = place.shared;  // not empty if the build is below /tmp
    std::string seen;
    for (const std::string& path : {here + "/a/more/new", here + "/a/no/new", here + "/new"}) {
        resolve(path);
        seen += place.shared + "|";
    }
    std::filesystem::remove_all(here);
    EXPECT_EQ(seen, outer.empty() ? here + "/a/|" + here + "/a/||" : outer + "|" + outer + "|" + outer + "|");
}

TEST_F(FilePath, APathWithoutASharedFolderReportsNoFolder) {
    resolve("/etc/new");
    EXPECT_EQ(place.shared, "");
}

TEST_F(FilePath, AStickyFolderOfAGroupIsNotShared) {
    const std::string here = std::filesystem::current_path().string() + "/group." + std::to_string(getpid());
    std::filesystem::create_directory(here);
    resolve(here);
    const std::string outer = place.shared;  // not empty if the build is below /tmp
    ASSERT_EQ(chmod(here.c_str(), 01770), 0);
    resolve(here + "/new");
    std::filesystem::remove(here);
    EXPECT_EQ(place.shared, outer);
}

}  // namespace
