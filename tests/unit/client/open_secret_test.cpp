#include "net/secret.h"

#include "open_support.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using opentest::Folder;
using opentest::writeText;
using rdbopen::maxSecretLength;
using rdbopen::readSecret;

std::string secretOf(const std::string& configured) {
    const auto secret = readSecret(configured);
    EXPECT_EQ(secret.status().reason, "");
    return secret.ok() ? *secret : "";
}

std::string refusal(const std::string& configured) {
    return readSecret(configured).status().reason;
}

TEST(Secret, APlainPasswordIsUsedUnchanged) {
    for (const std::string text : {"x", "file:", "file:relative", "File:/x", "a:b/c", ""})
        EXPECT_EQ(secretOf(text), text);
}

TEST(Secret, ThePasswordOfAFileEndsBeforeOneLineEnd) {
    const Folder folder;
    const struct {
        const char* text;
        const char* secret;
    } rows[] = {{"pass", "pass"}, {"pass\n", "pass"}, {"pass\r\n", "pass"}, {"pass\n\n", "pass\n"}, {" a b ", " a b "}};
    for (const auto& row : rows) {
        writeText(folder.file("p"), row.text);
        EXPECT_EQ(secretOf("file:" + folder.file("p")), row.secret);
    }
}

TEST(Secret, AFileIsReadAgainEachTime) {
    const Folder folder;
    writeText(folder.file("p"), "old");
    EXPECT_EQ(secretOf("file:" + folder.file("p")), "old");
    writeText(folder.file("p"), "new");
    EXPECT_EQ(secretOf("file:" + folder.file("p")), "new");
}

TEST(Secret, AFileWithoutAPasswordIsRefusedWithItsName) {
    const Folder folder;
    const std::string path = folder.file("p");
    EXPECT_EQ(refusal("file:" + path), "the password file " + path + " cannot be read: " + opentest::errorText(ENOENT));
    writeText(path, "\n");
    EXPECT_EQ(refusal("file:" + path), "the password file " + path + " is empty");
    EXPECT_NE(refusal("file:" + folder.path()), "");
}

TEST(Secret, APasswordOfMaximumLengthIsAcceptedAndALongerOneRefused) {
    const Folder folder;
    const std::string path = folder.file("p");
    const std::string longest(maxSecretLength, 's');
    writeText(path, longest + "\r\n");
    EXPECT_EQ(secretOf("file:" + path), longest);
    for (const char* more : {"s", "s\n", "sssssssssss"}) {
        writeText(path, longest + more);
        EXPECT_EQ(refusal("file:" + path), "the password file " + path + " is too long");
    }
}

TEST(Secret, APipeIsRefusedWithoutWaitingForItsWriter) {
    const Folder folder;
    const std::string path = folder.file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_NE(refusal("file:" + path), "");
}

}  // namespace
