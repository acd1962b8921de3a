#include "sqlite/backend.h"

#include "engine/clock.h"
#include "files/path.h"
#include "net/url.h"
#include "sqlite/creation.h"
#include "sqlite/damage.h"
#include "sqlite/files.h"
#include "sqlite/reader.h"
#include "sqlite/schema.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace rdbopen {

namespace {

//  The same interval as in redis/backend.cpp. A check makes about a dozen calls of stat(2) and lstat(2) and reads one
//  row for each value.
constexpr std::chrono::milliseconds checkAfter{60000};

//  Returns whether the log is empty. An empty log is not emptied again, because other services would see this as a
//  commit.
bool isEmptyLog(const FilePlace& place) {
    struct stat log {};
    return lstat((place.path() + "-wal").c_str(), &log) == 0 && log.st_size == 0;
}

class SqliteBackend : public Backend, public TagBackend, public Inspector {
public:
    SqliteBackend(const std::string& path, std::uint32_t history) : path_(path), history_(history) {}
    ~SqliteBackend() override { SqliteBackend::close(); }

    std::string label() const override { return "sqlite://" + path_; }
    TagBackend* tags() noexcept override { return this; }
    Inspector* inspector() noexcept override { return this; }

    Status open(const Waiter& waiter) override;
    void close() noexcept override;
    Status get(RdbTag& tag) override;
    Status import(const RdbTag& tag) override;
    Status put(std::span<const RdbSnapshot> records) override;
    std::chrono::milliseconds checkInterval() const noexcept override { return checkAfter; }
    Status probe() override;
    Status checkValue(const RdbSnapshot& record) override;

    Status openToRead(const Waiter& waiter) override;
    Result<Holdings> held(const HostNames& host) override;
    Status examine(const HostNames& host, std::vector<Examination>& results) override;
    Status remove(std::vector<RemovalStep>& steps) override;

private:
    Status failed(const char* what, Status cause);
    Status openFile();
    void closeStatements();
    Status prepareAll();
    Status writeTest();
    Status examineFiles();
    bool pathNamesOpenFile() const;
    Status checkpoint();
    Status verifyStored(std::span<const RdbSnapshot> records);
    template <class Body>
    Status transaction(Body body);
    Status putOne(const RdbSnapshot& record, std::int64_t now);
    Status putChange(const RdbSnapshot& record, std::int64_t tag, std::int64_t now);
    Result<bool> holds(const RdbSnapshot& record);
    Status writtenBy(SqliteStatement& statement);
    Status removeShown();

    std::string path_;
    const std::uint32_t history_;  // maximum number of history rows of a tag
    SqliteDatabase database_;
    SqliteStatement findTag_, importTag_, putSnapshot_, confirmSnapshot_, putHistory_, trimHistory_, findValue_;
    FilePlace place_;  // resolved path of the open file
    SqliteFiles files_;
    bool recorded_ = false;  // files_ has recorded the state after the last request
    bool changed_ = false;   // the recorded files could not be verified, so another program may have changed them
    bool suspect_ = false;   // the file may be damaged and has not been checked since

    const Waiter* readWaiter_ = nullptr;  // set by openToRead
    std::string shownName_;               // host name of the last call of `held` that succeeded
    SqliteName shown_;                    // what the database had of shownName_ during this call
    Holdings holdings_;                   // result of this call: the contents of shown_ as texts
};

//  Returns cause with `what` and a colon before its reason. If SQLite has found damage, sets suspect_. Requires: cause
//  is the last result of SQLite.
Status SqliteBackend::failed(const char* what, Status cause) {
    suspect_ = suspect_ || database_.lastResultIsDamage();
    return failedTo(what, std::move(cause));
}

//  If a damaged file is renamed, open fails, so that the worker logs the file's new name. The next open creates a new
//  file.
Status SqliteBackend::open(const Waiter&) {
    if (Status unresolved = resolveFile(path_, place_); !unresolved.ok())
        return failedTo("the file cannot be reached", std::move(unresolved));
    if (!suspect_) {
        Status status = openFile();
        if (!suspect_)
            return status;
        closeStatements();
        database_.abandon();
    }
    suspect_ = false;
    if (Status moved = moveDamagedSqliteFile(place_); !moved.ok())
        return moved;
    return openFile();
}

//  At its first read, SQLite allocates a block for 20 pages of 4 KB and keeps it until no page is in it. dropPageCache
//  removes the pages. The next block has the size of the cache, which is enough for the pages of one request.
Status SqliteBackend::openFile() {
    if (Status unmade = makeSqliteFile(place_); !unmade.ok())
        return unmade;
    if (Status unopened = database_.open(place_.path()); !unopened.ok())
        return failed("cannot be opened", std::move(unopened));
    if (Status refused = verifySqliteFile(database_, place_.path()); !refused.ok())
        return refused;
    if (isSqliteFileCutShort(database_, place_.path())) {
        suspect_ = true;
        return backendFailed("the file is shorter than its header says");
    }
    if (Status unmade = makeSqliteSchema(database_); !unmade.ok()) {
        suspect_ = database_.lastResultIsDamage();
        return unmade;
    }
    if (const auto mode = database_.text("PRAGMA journal_mode = WAL"); !mode.ok() || *mode != "wal")
        return failed("cannot use write-ahead logging", database_.lastFailure());
    if (Status unset = database_.run("PRAGMA synchronous = FULL; PRAGMA wal_autocheckpoint = 0; PRAGMA cache_size = 8; "
                                     "PRAGMA foreign_keys = ON; PRAGMA trusted_schema = OFF");
        !unset.ok())
        return failed("cannot be set up", std::move(unset));
    if (Status unprepared = prepareAll(); !unprepared.ok())
        return failed("does not have the expected tables", std::move(unprepared));
    if (Status unwritten = writeTest(); !unwritten.ok())
        return failed("cannot be written", std::move(unwritten));
    Status status = checkpoint();
    database_.dropPageCache();
    return status;
}

//  A normal close of the last connection writes the log into the database file and then removes the log by its name. If
//  the files were replaced, the log must not be written into another file, so the connection is closed without this
//  step.
void SqliteBackend::close() noexcept {
    try {
        static_cast<void>(examineFiles());  // stores a change of the files in changed_
    } catch (...) {
        changed_ = true;  // the state is unknown, because memory is exhausted
    }
    closeStatements();
    if (changed_) {
        database_.abandon();
        files_.removeRemains();
    }
    database_.close();
    recorded_ = false;
    changed_ = false;
}

void SqliteBackend::closeStatements() {
    for (SqliteStatement* statement :
         {&findTag_, &importTag_, &putSnapshot_, &confirmSnapshot_, &putHistory_, &trimHistory_, &findValue_})
        *statement = SqliteStatement();
}

Status SqliteBackend::prepareAll() {
    const std::pair<SqliteStatement*, const char*> statements[] = {
        {&findTag_, "SELECT id, class, type, importflag FROM tag WHERE name = ?1"},
        {&importTag_, "INSERT INTO tag(name, class, type, importflag, imported_ms) "
                      "VALUES(?1, ?2, ?3, ?4, ?5) ON CONFLICT(name) DO UPDATE SET class = excluded.class, "
                      "type = excluded.type, importflag = excluded.importflag, imported_ms = excluded.imported_ms"},
        {&putSnapshot_, "INSERT INTO snapshot(tag, time_ms, confirmed_ms, type, value) VALUES(?1, ?2, ?2, ?3, ?4) "
                        "ON CONFLICT(tag) DO UPDATE SET time_ms = excluded.time_ms, "
                        "confirmed_ms = excluded.confirmed_ms, type = excluded.type, value = excluded.value"},
        {&confirmSnapshot_, "UPDATE snapshot SET confirmed_ms = ?2 WHERE tag = ?1"},
        {&putHistory_, "INSERT INTO history(tag, time_ms, type, value) VALUES(?1, ?2, ?3, ?4)"},
        {&trimHistory_, "DELETE FROM history WHERE tag = ?1 AND id <= (SELECT id FROM history "
                        "WHERE tag = ?1 ORDER BY id DESC LIMIT 1 OFFSET ?2)"},
        {&findValue_, "SELECT snapshot.type, value FROM snapshot JOIN tag ON tag.id = snapshot.tag WHERE name = ?1"},
    };
    for (const auto& [statement, sql] : statements) {
        Result<SqliteStatement> prepared = database_.prepare(sql);
        if (!prepared.ok())
            return prepared.status();
        *statement = std::move(*prepared);
    }
    return {};
}

//  Tests whether the database can be written. Commits a change, because a lock alone would not detect a full disk.
Status SqliteBackend::writeTest() {
    Result<SqliteStatement> mark = database_.prepare("INSERT INTO service(one, opened_ms) VALUES(1, ?1) "
                                                     "ON CONFLICT(one) DO UPDATE SET opened_ms = excluded.opened_ms");
    return mark.ok() ? mark->bind(1, wallNow()).run() : mark.status();
}

//  SQLite does not notice if its file is removed, replaced or changed by another program: it continues to write to the
//  old file, which nobody reads, or overwrites the other program's data. This function detects such changes, with the
//  exceptions in files.h.
Status SqliteBackend::examineFiles() {
    if (!recorded_ || changed_)
        return {};
    Status verified = files_.verify(database_);
    changed_ = !verified.ok();
    if (changed_)
        return verified;
    return pathNamesOpenFile() ? Status{} : backendFailed("the path leads to another file");
}

//  Returns whether the configured path still leads to the open file: a symbolic link on the path may have changed.
bool SqliteBackend::pathNamesOpenFile() const {
    struct stat asked {};
    struct stat open {};
    return stat(path_.c_str(), &asked) == 0 && lstat(place_.path().c_str(), &open) == 0 &&
           asked.st_dev == open.st_dev && asked.st_ino == open.st_ino;
}

//  Writes committed data from the log into the database file and empties the log, unless a reader prevents this. So no
//  data is lost if the log is lost later, and an old log is not applied to another file. Then checks that the files
//  still have their names, because readers open the files by name.
Status SqliteBackend::checkpoint() {
    if (Status status = examineFiles(); !status.ok())
        return status;
    if (!isEmptyLog(place_))
        database_.emptyLog();
    if (recorded_ && !files_.areNamed())
        return examineFiles();
    recorded_ = files_.record(place_.path(), database_).ok();
    return recorded_ ? Status{} : backendFailed("the file was removed while it was written");
}

//  The checkpoint also empties the log if a reader prevented this after the last request.
Status SqliteBackend::probe() {
    return checkpoint();
}

//  Drops the page cache before the query, so that the value is read from the file. Drops it again after the query: the
//  next request may be minutes away, and the cache would use memory until then.
Status SqliteBackend::checkValue(const RdbSnapshot& record) {
    database_.dropPageCache();
    const Result<bool> held = holds(record);
    database_.dropPageCache();
    if (!held.ok())
        return held.status();
    return *held ? Status{} : Status{errorNotHeld, {}};
}

//  Returns whether the current value of the name in record has the type and bytes in record.
Result<bool> SqliteBackend::holds(const RdbSnapshot& record) {
    const Result<bool> found = findValue_.bind(1, std::string_view(record.name)).step();
    const bool equal = found.ok() && *found && findValue_.column(0) == record.valuetype &&
                       findValue_.text(1) == std::string_view(record.value, record.valuelen);
    findValue_.reset();
    if (!found.ok())
        return failed("cannot be read", found.status());
    return equal;
}

Status SqliteBackend::get(RdbTag& tag) {
    if (Status status = examineFiles(); !status.ok())
        return status;
    const Result<bool> found = findTag_.bind(1, std::string_view(tag.name)).step();
    if (found.ok() && *found) {
        tag.tagclass = static_cast<std::uint8_t>(findTag_.column(1));
        tag.valuetype = static_cast<std::uint8_t>(findTag_.column(2));
        tag.importflag = static_cast<std::uint8_t>(findTag_.column(3));
    }
    Status status;
    if (!found.ok())
        status = failed("cannot be read", found.status());
    else if (!*found)
        status.code = errorNoSuchTag;
    findTag_.reset();
    return status;
}

Status SqliteBackend::import(const RdbTag& tag) {
    return transaction([&] {
        importTag_.bind(1, std::string_view(tag.name)).bind(2, std::int64_t{tag.tagclass});
        importTag_.bind(3, std::int64_t{tag.valuetype}).bind(4, std::int64_t{tag.importflag}).bind(5, wallNow());
        return writtenBy(importTag_);
    });
}

Status SqliteBackend::put(std::span<const RdbSnapshot> records) {
    Status status = transaction([&] {
        const std::int64_t now = wallNow();
        Status each;
        for (auto record = records.begin(); each.ok() && record != records.end(); ++record)
            each = putOne(*record, now);
        return each;
    });
    return status.ok() ? verifyStored(records) : status;
}

//  Checks the values after a put. SqliteFiles does not detect that another program wrote to the file before checkpoint
//  recorded the file's state. If several records have the same tag, only the last of these records is compared.
Status SqliteBackend::verifyStored(std::span<const RdbSnapshot> records) {
    for (; !records.empty(); records = records.subspan(1)) {
        const auto isSameTag = [&](const RdbSnapshot& later) {
            return std::string_view(later.name) == records.front().name;
        };
        if (std::any_of(records.begin() + 1, records.end(), isSameTag))
            continue;
        Status status = checkValue(records.front());
        if (status.code == errorNotHeld)
            return backendFailed("the file was overwritten while it was written");
        if (!status.ok())
            return status;
    }
    return {};
}

//  Runs a statement that writes.
Status SqliteBackend::writtenBy(SqliteStatement& statement) {
    Status status = statement.run();
    return status.ok() ? status : failed("cannot be written", std::move(status));
}

//  Requires: inside a transaction.
Status SqliteBackend::putOne(const RdbSnapshot& record, std::int64_t now) {
    const Result<bool> found = findTag_.bind(1, std::string_view(record.name)).step();
    const bool exists = found.ok() && *found;
    const std::int64_t tag = exists ? findTag_.column(0) : 0;
    const std::int64_t tagclass = exists ? findTag_.column(1) : 0;
    findTag_.reset();
    if (!found.ok())
        return failed("cannot be read", found.status());
    if (!exists)
        return {errorNoSuchTag, {}};
    if (tagclass != RDB_TAG_CLASS_USABLE)
        return {errorTagNotUsable, {}};

    const Result<bool> unchanged = holds(record);
    if (!unchanged.ok())
        return unchanged.status();
    return *unchanged ? writtenBy(confirmSnapshot_.bind(1, tag).bind(2, now)) : putChange(record, tag, now);
}

Status SqliteBackend::putChange(const RdbSnapshot& record, std::int64_t tag, std::int64_t now) {
    const std::string_view value(record.value, record.valuelen);
    for (SqliteStatement* insert : {&putSnapshot_, &putHistory_}) {
        insert->bind(1, tag).bind(2, now).bind(3, std::int64_t{record.valuetype}).bind(4, value);
        if (Status unwritten = writtenBy(*insert); !unwritten.ok())
            return unwritten;
    }
    return writtenBy(trimHistory_.bind(1, tag).bind(2, std::int64_t{history_}));
}

//  Calls body in a write transaction, which is committed only if body succeeds.
template <class Body>
Status SqliteBackend::transaction(Body body) {
    if (Status changed = examineFiles(); !changed.ok())
        return changed;
    if (Status locked = database_.run("BEGIN IMMEDIATE"); !locked.ok())
        return failed("cannot be written", std::move(locked));
    Status status = body();
    if (status.ok())
        if (Status committed = database_.run("COMMIT"); !committed.ok())
            status = failed("cannot be written", std::move(committed));
    if (database_.inTransaction())
        database_.rollBack();
    return status.ok() ? checkpoint() : status;
}

Status SqliteBackend::openToRead(const Waiter& waiter) {
    readWaiter_ = &waiter;
    Status status = resolveFile(path_, place_);
    return status.ok() ? status : failedTo("the file cannot be reached", std::move(status));
}

Result<Holdings> SqliteBackend::held(const HostNames& host) {
    Result<SqliteName> found = readSqliteName(place_, host.name);
    if (!found.ok())
        return found.status();
    holdings_ = {};
    holdings_.addresses = addressesIn(found->value ? found->value->value : std::string());
    if (found->hasTag)
        holdings_.records.push_back({"tag " + host.name, {}});
    if (found->value)
        holdings_.records.push_back({"value " + host.name + " = " + found->value->value, {}});
    if (found->changes != 0)
        holdings_.records.push_back({"history " + host.name + ", changes: " + std::to_string(found->changes), {}});
    shownName_ = host.name;
    shown_ = std::move(*found);
    return holdings_;
}

//  Tests the permissions of the calling user. The folder is tested, too, because the service creates a missing file,
//  and SQLite the log, in this folder.
Status SqliteBackend::examine(const HostNames&, std::vector<Examination>& results) {
    const std::string path = place_.path();
    const bool exists = access(path.c_str(), F_OK) == 0;
    const auto test = [&](const std::string& what, const std::string& place, int mode) {
        results.push_back({what, access(place.c_str(), mode) == 0 ? Status{} : systemFailure(errno)});
    };
    test("write in the folder " + place_.directory + " (as this user)", place_.directory, W_OK | X_OK);
    if (exists)
        test("read and write the database (as this user)", path, R_OK | W_OK);
    return {};
}

Status SqliteBackend::remove(std::vector<RemovalStep>& steps) {
    if (!shown_.hasTag)
        return {};
    Status status = open(*readWaiter_);
    if (status.ok())
        status = transaction([this] { return removeShown(); });
    steps.push_back({textsOfOurs(holdings_), status});
    return status;
}

//  Requires: inside a transaction.
Status SqliteBackend::removeShown() {
    std::optional<SqliteValue> current;
    const Result<bool> found = findValue_.bind(1, std::string_view(shownName_)).step();
    if (found.ok() && *found)
        current = {findValue_.column(0), std::string(findValue_.text(1))};
    findValue_.reset();
    if (!found.ok())
        return failed("cannot be read", found.status());
    if (current != shown_.value)
        return serverRefused("the value has changed since it was shown; nothing was deleted");
    for (const char* sql :
         {"DELETE FROM history WHERE tag = (SELECT id FROM tag WHERE name = ?1)",
          "DELETE FROM snapshot WHERE tag = (SELECT id FROM tag WHERE name = ?1)", "DELETE FROM tag WHERE name = ?1"}) {
        Result<SqliteStatement> statement = database_.prepare(sql);
        if (!statement.ok())
            return failed("cannot be written", statement.status());
        if (Status status = writtenBy(statement->bind(1, std::string_view(shownName_))); !status.ok())
            return status;
    }
    return {};
}

}  // namespace

BackendResult makeSqliteBackend(const Url& url, const Credentials&) {
    const Result<std::string> path = filePathOf(url);
    if (!path.ok())
        return path.status();
    std::uint32_t history = defaultHistory;
    if (url.options.size() > 1 || (url.options.size() == 1 && url.options[0].name != "history"))
        return malformedUrl("it has options other than one history (write ? as %3F in a path)");
    if (!url.options.empty())
        if (Status malformed = parseHistory(url.options[0].value, history); !malformed.ok())
            return malformed;
    return BackendResult(std::make_unique<SqliteBackend>(*path, history));
}

}  // namespace rdbopen
