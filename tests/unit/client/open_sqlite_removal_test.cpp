//  The data of a name that the back end sqlite finds and removes.
#include "open_sqlite_fixture.h"

namespace {

using namespace opentest;
using namespace rdbopen;

class SqliteRemoval : public SqliteFixture {
protected:
    Inspector& inspector() { return *backend->inspector(); }
    void publish(const std::string& name, const std::string& value) {
        openWithTag(name);
        ASSERT_EQ(put(name, value), 0);
        backend->close();
    }
    std::vector<std::string> held(const std::string& name = "host1") {
        EXPECT_EQ(inspector().openToRead(plainWaiter).code, 0);
        const Result<Holdings> found = inspector().held({name, {}});
        EXPECT_EQ(found.status().reason, "");
        return textsOfOurs(*found);
    }
    Status remove() {
        std::vector<RemovalStep> steps;
        Status status = inspector().remove(steps);
        EXPECT_EQ(steps.size(), 1U);
        backend->close();
        return status;
    }
};

using Texts = std::vector<std::string>;

TEST_F(SqliteRemoval, TheRowsOfOneNameAreDeleted) {
    publish("host1", "a");
    publish("host2", "b");
    EXPECT_EQ(held(), (Texts{"tag host1", "value host1 = a", "history host1, changes: 1"}));
    EXPECT_EQ(remove().reason, "");
    EXPECT_EQ(held(), Texts());
    EXPECT_EQ(query("SELECT name || value FROM current_values"), "host2b");
    EXPECT_EQ(query("SELECT count(*) FROM history"), "1");
}

TEST_F(SqliteRemoval, AValueThatHasChangedSinceItWasShownStays) {
    publish("host1", "a");
    EXPECT_EQ(held().size(), 3U);
    const auto other = backendFor("sqlite://" + file);
    ASSERT_EQ(other->open(plainWaiter).code, 0);
    const RdbSnapshot later = recordOf("host1", "b");
    ASSERT_EQ(other->tags()->put({&later, 1}).code, 0);
    other->close();
    const Status status = remove();
    EXPECT_EQ(status.code, errorServerRefused);
    EXPECT_EQ(held(), (Texts{"tag host1", "value host1 = b", "history host1, changes: 2"}));
}

TEST_F(SqliteRemoval, AMissingOrEmptyFileHasNothingAndStaysAsItIs) {
    EXPECT_EQ(held(), Texts());
    EXPECT_FALSE(std::filesystem::exists(file));
    writeText(file, "");
    EXPECT_EQ(held(), Texts());
    EXPECT_EQ(readText(file), "");
    EXPECT_EQ(entriesOf(folder.path().c_str()), 1U);
}

TEST_F(SqliteRemoval, ReadingCreatesNoFile) {
    publish("host1", "a");
    ASSERT_EQ(entriesOf(folder.path().c_str()), 1U);
    const std::string before = readText(file);
    EXPECT_EQ(held().size(), 3U);
    EXPECT_EQ(entriesOf(folder.path().c_str()), 1U);
    EXPECT_EQ(readText(file), before);
}

TEST_F(SqliteRemoval, ADatabaseInUseIsReadWithItsLog) {
    openWithTag("host1");
    ASSERT_EQ(put("host1", "a"), 0);
    rdbopen::SqliteDatabase writer;
    ASSERT_TRUE(writer.open(file).ok());
    ASSERT_EQ(writer.run("UPDATE snapshot SET value = 'in the log'").reason, "");
    const auto reader = backendFor("sqlite://" + file);
    ASSERT_EQ(reader->inspector()->openToRead(plainWaiter).code, 0);
    const Result<Holdings> found = reader->inspector()->held({"host1", {}});
    ASSERT_TRUE(found.ok());
    EXPECT_EQ(textsOfOurs(*found)[1], "value host1 = in the log");
}

TEST_F(SqliteRemoval, APathWithMarksOfAUrlIsReadAsItIs) {
    const std::string odd = folder.file("a?b#c%20d");
    std::filesystem::create_directory(folder.file("sub"));
    publish("host1", "a");
    std::filesystem::rename(file, odd);
    backend = backendFor("sqlite://" + folder.path() + "/a%3Fb%23c%2520d");
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(held().size(), 3U);
}

TEST_F(SqliteRemoval, ADatabaseOfAnotherProgramIsRefused) {
    makeForeign("CREATE TABLE tag(name TEXT)");
    EXPECT_EQ(inspector().openToRead(plainWaiter).code, 0);
    EXPECT_EQ(inspector().held({"host1", {}}).status().reason, "the file is a database of another program");
}

}  // namespace
