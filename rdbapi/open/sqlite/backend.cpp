#include "sqlite/backend.h"

#include "engine/clock.h"
#include "files/path.h"
#include "net/url.h"
#include "sqlite/creation.h"
#include "sqlite/damage.h"
#include "sqlite/files.h"
#include "sqlite/schema.h"

#include <algorithm>
#include <sys/stat.h>

namespace rdbopen {

namespace {

//  As often as the back end redis looks: a check is six calls of stat(2) and one row for each tag.
constexpr std::chrono::milliseconds checkAfter{60000};

//  Emptying an empty log again would look like a commit to other services.
bool isEmptyLog(const FilePlace& place) {
    struct stat log {};
    return lstat((place.path() + "-wal").c_str(), &log) == 0 && log.st_size == 0;
}

class SqliteBackend : public Backend {
public:
    explicit SqliteBackend(const std::string& path) : path_(path) {}
    ~SqliteBackend() override { SqliteBackend::close(); }

    std::string label() const override { return "sqlite://" + path_; }
    bool serves(Service service) const noexcept override { return service == Service::tags; }

    Outcome open(const Waiter& waiter) override;
    void close() noexcept override;
    Outcome tagGet(RdbTag& tag) override;
    Outcome tagImport(const RdbTag& tag) override;
    Outcome put(std::span<const RdbSnapshot> records) override;
    std::chrono::milliseconds checkInterval() const noexcept override { return checkAfter; }
    Outcome probe() override;
    Outcome checkValue(const RdbSnapshot& record) override;

private:
    Outcome failed(const char* what);
    Outcome openFile();
    void closeStatements();
    bool prepareAll();
    bool checkWritable();
    Outcome examineFiles();
    bool leadsToTheFile() const;
    Outcome settle();
    Outcome proveHeld(std::span<const RdbSnapshot> records);
    template <class Body>
    Outcome transaction(Body body);
    Outcome putOne(const RdbSnapshot& record, std::int64_t now);

    std::string path_;
    SqliteDatabase database_;
    SqliteStatement findTag_, importTag_, putSnapshot_, putHistory_, trimHistory_, findValue_;
    FilePlace place_;  // of the file that is open
    SqliteFiles files_;
    bool noted_ = false;    // files_ holds how the last request left them
    bool changed_ = false;  // by another program than SQLite, since then
    bool suspect_ = false;  // SQLite has found the file damaged, and it was not checked since then
};

Outcome SqliteBackend::failed(const char* what) {
    suspect_ = suspect_ || database_.lastResultIsDamage();
    return backendFailed(what + (": " + database_.lastError()));
}

//  A damaged file is moved aside by an open that fails, so that the worker reports the new name; the next open makes the
//  new file.
Outcome SqliteBackend::open(const Waiter&) {
    if (const std::string reason = resolveFile(path_, place_); !reason.empty())
        return backendFailed("the file cannot be reached: " + reason);
    if (!suspect_) {
        Outcome outcome = openFile();
        if (!suspect_)
            return outcome;
        closeStatements();
        database_.abandon();
    }
    suspect_ = false;
    if (std::string reason = moveDamagedSqliteFile(place_); !reason.empty())
        return backendFailed(std::move(reason));
    return openFile();
}

Outcome SqliteBackend::openFile() {
    if (std::string reason = makeSqliteFile(place_); !reason.empty())
        return backendFailed(std::move(reason));
    if (database_.open(place_.path()) != SQLITE_OK)
        return failed("cannot be opened");
    if (std::string refusal = sqliteFileRefusal(database_, place_.path()); !refusal.empty())
        return backendFailed(std::move(refusal));
    if (isSqliteFileCutShort(database_, place_.path())) {
        suspect_ = true;
        return backendFailed("the file is shorter than its header says");
    }
    if (std::string reason = makeSqliteSchema(database_); !reason.empty()) {
        suspect_ = database_.lastResultIsDamage();
        return backendFailed(std::move(reason));
    }
    if (database_.text("PRAGMA journal_mode = WAL") != "wal")
        return failed("cannot use write-ahead logging");
    if (database_.run("PRAGMA synchronous = FULL; PRAGMA wal_autocheckpoint = 0; PRAGMA foreign_keys = ON; "
                      "PRAGMA trusted_schema = OFF") != SQLITE_OK)
        return failed("cannot be set up");
    if (!prepareAll())
        return failed("does not have the expected tables");
    if (!checkWritable())
        return failed("cannot be written");
    return settle();
}

//  A connection that closes as usual writes its log into the file, and removes the log by its name. Into a file that is
//  not the one of the log it must not.
void SqliteBackend::close() noexcept {
    try {
        examineFiles();
    } catch (...) {
        changed_ = true;  // not known without memory
    }
    closeStatements();
    if (changed_) {
        database_.abandon();
        files_.removeRemains();
    }
    database_.close();
    noted_ = false;
    changed_ = false;
}

void SqliteBackend::closeStatements() {
    for (SqliteStatement* statement : {&findTag_, &importTag_, &putSnapshot_, &putHistory_, &trimHistory_, &findValue_})
        *statement = SqliteStatement();
}

bool SqliteBackend::prepareAll() {
    findTag_ = database_.prepare("SELECT id, class, type, importflag FROM tag WHERE name = ?1");
    importTag_ = database_.prepare("INSERT INTO tag(name, class, type, importflag, imported_ms) "
                                   "VALUES(?1, ?2, ?3, ?4, ?5) ON CONFLICT(name) DO UPDATE SET class = excluded.class, "
                                   "type = excluded.type, importflag = excluded.importflag, "
                                   "imported_ms = excluded.imported_ms");
    putSnapshot_ = database_.prepare("INSERT INTO snapshot(tag, time_ms, type, value) VALUES(?1, ?2, ?3, ?4) "
                                     "ON CONFLICT(tag) DO UPDATE SET time_ms = excluded.time_ms, "
                                     "type = excluded.type, value = excluded.value");
    putHistory_ = database_.prepare("INSERT INTO history(tag, time_ms, type, value) VALUES(?1, ?2, ?3, ?4)");
    trimHistory_ = database_.prepare("DELETE FROM history WHERE tag = ?1 AND id <= (SELECT id FROM history "
                                     "WHERE tag = ?1 ORDER BY id DESC LIMIT 1 OFFSET ?2)");
    findValue_ = database_.prepare(
        "SELECT snapshot.type, value FROM snapshot JOIN tag ON tag.id = snapshot.tag WHERE name = ?1");
    return findTag_ && importTag_ && putSnapshot_ && putHistory_ && trimHistory_ && findValue_;
}

//  A lock alone does not show a full or read-only disk; a committed change does.
bool SqliteBackend::checkWritable() {
    SqliteStatement note = database_.prepare("INSERT INTO service(one, opened_ms) VALUES(1, ?1) "
                                             "ON CONFLICT(one) DO UPDATE SET opened_ms = excluded.opened_ms");
    return note && note.bind(1, wallNow()).run() == SQLITE_OK;
}

//  SQLite goes on writing into a file that was removed or replaced, where nobody would ever read it. It also overwrites a
//  file that another program wrote.
Outcome SqliteBackend::examineFiles() {
    if (!noted_ || changed_)
        return {};
    const std::string change = files_.change(database_);
    changed_ = !change.empty();
    if (changed_)
        return backendFailed(change);
    return leadsToTheFile() ? Outcome{} : backendFailed("the path leads to another file");
}

//  A link on the path may have been pointed elsewhere; the file itself is as it was then.
bool SqliteBackend::leadsToTheFile() const {
    struct stat asked {};
    struct stat open {};
    return stat(path_.c_str(), &asked) == 0 && lstat(place_.path().c_str(), &open) == 0 &&
           asked.st_dev == open.st_dev && asked.st_ino == open.st_ino;
}

//  What was committed goes from the log into the file, so that a log that is lost, or that belongs to a file that was
//  replaced, has nothing in it. Then the names are looked at: what was written is where a reader looks for it.
Outcome SqliteBackend::settle() {
    if (Outcome outcome = examineFiles(); outcome.code != errorNone)
        return outcome;
    if (!isEmptyLog(place_))
        database_.emptyLog();
    if (noted_ && !files_.areNamed())
        return examineFiles();
    noted_ = files_.note(place_.path(), database_);
    return noted_ ? Outcome{} : backendFailed("the file was removed while it was written");
}

//  Also empties a log that a reader kept from being emptied after the last request.
Outcome SqliteBackend::probe() {
    return settle();
}

//  Reads the file and not what SQLite remembers of it.
Outcome SqliteBackend::checkValue(const RdbSnapshot& record) {
    database_.forgetPages();
    const int result = findValue_.bind(1, std::string_view(record.name)).step();
    Outcome outcome;
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        outcome = failed("cannot be read");
    else if (result == SQLITE_DONE || findValue_.column(0) != record.valuetype ||
             findValue_.text(1) != std::string_view(record.value, record.valuelen))
        outcome.code = errorNotHeld;
    findValue_.reset();
    return outcome;
}

Outcome SqliteBackend::tagGet(RdbTag& tag) {
    if (Outcome outcome = examineFiles(); outcome.code != errorNone)
        return outcome;
    const int result = findTag_.bind(1, std::string_view(tag.name)).step();
    if (result == SQLITE_ROW) {
        tag.tagclass = static_cast<std::uint8_t>(findTag_.column(1));
        tag.valuetype = static_cast<std::uint8_t>(findTag_.column(2));
        tag.importflag = static_cast<std::uint8_t>(findTag_.column(3));
    }
    Outcome outcome;
    if (result == SQLITE_DONE)
        outcome.code = errorNoSuchTag;
    else if (result != SQLITE_ROW)
        outcome = failed("cannot be read");
    findTag_.reset();
    return outcome;
}

Outcome SqliteBackend::tagImport(const RdbTag& tag) {
    return transaction([&] {
        importTag_.bind(1, std::string_view(tag.name)).bind(2, std::int64_t{tag.tagclass});
        importTag_.bind(3, std::int64_t{tag.valuetype}).bind(4, std::int64_t{tag.importflag}).bind(5, wallNow());
        return importTag_.run() == SQLITE_OK ? Outcome{} : failed("cannot be written");
    });
}

Outcome SqliteBackend::put(std::span<const RdbSnapshot> records) {
    Outcome outcome = transaction([&] {
        const std::int64_t now = wallNow();
        Outcome each;
        for (auto record = records.begin(); each.code == errorNone && record != records.end(); ++record)
            each = putOne(*record, now);
        return each;
    });
    return outcome.code == errorNone ? proveHeld(records) : outcome;
}

//  A program that wrote into the file before settle took note of it leaves no other trace. Of several records of one tag
//  the last is its value.
Outcome SqliteBackend::proveHeld(std::span<const RdbSnapshot> records) {
    for (; !records.empty(); records = records.subspan(1)) {
        const auto isSameTag = [&](const RdbSnapshot& later) {
            return std::string_view(later.name) == records.front().name;
        };
        if (std::any_of(records.begin() + 1, records.end(), isSameTag))
            continue;
        Outcome outcome = checkValue(records.front());
        if (outcome.code == errorNotHeld)
            return backendFailed("the file was overwritten while it was written");
        if (outcome.code != errorNone)
            return outcome;
    }
    return {};
}

//  Requires: inside a transaction.
Outcome SqliteBackend::putOne(const RdbSnapshot& record, std::int64_t now) {
    const int found = findTag_.bind(1, std::string_view(record.name)).step();
    const std::int64_t tag = found == SQLITE_ROW ? findTag_.column(0) : 0;
    const std::int64_t tagclass = found == SQLITE_ROW ? findTag_.column(1) : 0;
    findTag_.reset();
    if (found == SQLITE_DONE)
        return {errorNoSuchTag, {}};
    if (found != SQLITE_ROW)
        return failed("cannot be read");
    if (tagclass != RDB_TAG_CLASS_USABLE)
        return {errorTagNotUsable, {}};

    const std::string_view value(record.value, record.valuelen);
    for (SqliteStatement* insert : {&putSnapshot_, &putHistory_}) {
        insert->bind(1, tag).bind(2, now).bind(3, std::int64_t{record.valuetype}).bind(4, value);
        if (insert->run() != SQLITE_OK)
            return failed("cannot be written");
    }
    return trimHistory_.bind(1, tag).bind(2, sqliteHistoryLimit).run() == SQLITE_OK ? Outcome{}
                                                                                    : failed("cannot be written");
}

//  Runs body inside a write transaction, which is committed only when body succeeds.
template <class Body>
Outcome SqliteBackend::transaction(Body body) {
    if (Outcome changed = examineFiles(); changed.code != errorNone)
        return changed;
    if (database_.run("BEGIN IMMEDIATE") != SQLITE_OK)
        return failed("cannot be written");
    Outcome outcome = body();
    if (outcome.code == errorNone && database_.run("COMMIT") != SQLITE_OK)
        outcome = failed("cannot be written");
    if (database_.inTransaction())
        database_.run("ROLLBACK");
    return outcome.code == errorNone ? settle() : outcome;
}

}  // namespace

int makeSqliteBackend(const Url& url, const Credentials&, std::unique_ptr<Backend>& backend, std::string& reason) {
    if (!isFileUrl(url, reason))
        return errorBadUrl;
    backend = std::make_unique<SqliteBackend>(url.path);
    return errorNone;
}

}  // namespace rdbopen
