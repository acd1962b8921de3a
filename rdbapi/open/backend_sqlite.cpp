#include "backend_sqlite.h"

#include "clock.h"
#include "file_path.h"
#include "file_url.h"
#include "sqlite_creation.h"
#include "sqlite_schema.h"

#include <sys/stat.h>

namespace rdbopen {

namespace {

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

private:
    Outcome failed(const char* what) { return backendFailed(what + (": " + database_.lastError())); }
    bool prepareAll();
    bool proveWriting();
    bool readIdentity(dev_t& device, ino_t& inode) const;
    bool fileIsThere() const;
    template <class Body>
    Outcome transaction(Body body);
    Outcome putOne(const RdbSnapshot& record, std::int64_t now);

    std::string path_;
    SqliteDatabase database_;
    SqliteStatement findTag_, importTag_, putSnapshot_, putHistory_, trimHistory_;
    dev_t device_ = 0;  // the file that was opened
    ino_t inode_ = 0;
};

Outcome SqliteBackend::open(const Waiter&) {
    FilePlace place;
    if (const std::string reason = resolveFile(path_, place); !reason.empty())
        return backendFailed("the file cannot be reached: " + reason);
    if (std::string reason = makeSqliteFile(place); !reason.empty())
        return backendFailed(std::move(reason));
    if (database_.open(place.path()) != SQLITE_OK)
        return failed("cannot be opened");
    if (std::string refusal = sqliteFileRefusal(database_, place.path()); !refusal.empty())
        return backendFailed(std::move(refusal));
    if (std::string reason = makeSqliteSchema(database_); !reason.empty())
        return backendFailed(std::move(reason));
    if (database_.text("PRAGMA journal_mode = WAL") != "wal")
        return failed("cannot use write-ahead logging");
    if (database_.run("PRAGMA synchronous = FULL; PRAGMA foreign_keys = ON; PRAGMA trusted_schema = OFF") != SQLITE_OK)
        return failed("cannot be set up");
    if (!prepareAll())
        return failed("does not have the expected tables");
    if (!proveWriting())
        return failed("cannot be written");
    if (!readIdentity(device_, inode_))
        return backendFailed("was removed while it was opened");
    return {};
}

void SqliteBackend::close() noexcept {
    for (SqliteStatement* statement : {&findTag_, &importTag_, &putSnapshot_, &putHistory_, &trimHistory_})
        *statement = SqliteStatement();
    database_.close();
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
    return findTag_ && importTag_ && putSnapshot_ && putHistory_ && trimHistory_;
}

//  A lock alone does not show a full or read-only disk; a committed change does.
bool SqliteBackend::proveWriting() {
    SqliteStatement note = database_.prepare("INSERT INTO service(one, opened_ms) VALUES(1, ?1) "
                                             "ON CONFLICT(one) DO UPDATE SET opened_ms = excluded.opened_ms");
    return note && note.bind(1, wallNow()).run() == SQLITE_OK;
}

bool SqliteBackend::readIdentity(dev_t& device, ino_t& inode) const {
    struct stat status {};
    if (stat(path_.c_str(), &status) != 0)
        return false;
    device = status.st_dev;
    inode = status.st_ino;
    return true;
}

//  SQLite goes on writing into a file that was removed or replaced, where nobody would ever read it.
bool SqliteBackend::fileIsThere() const {
    dev_t device = 0;
    ino_t inode = 0;
    return readIdentity(device, inode) && device == device_ && inode == inode_;
}

Outcome SqliteBackend::tagGet(RdbTag& tag) {
    if (!fileIsThere())
        return backendFailed("the file was removed or replaced");
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
    return transaction([&] {
        const std::int64_t now = wallNow();
        Outcome outcome;
        for (auto record = records.begin(); outcome.code == errorNone && record != records.end(); ++record)
            outcome = putOne(*record, now);
        return outcome;
    });
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
    if (!fileIsThere())
        return backendFailed("the file was removed or replaced");
    if (database_.run("BEGIN IMMEDIATE") != SQLITE_OK)
        return failed("cannot be written");
    Outcome outcome = body();
    if (outcome.code == errorNone && database_.run("COMMIT") != SQLITE_OK)
        outcome = failed("cannot be written");
    if (database_.inTransaction())
        database_.run("ROLLBACK");
    return outcome;
}

}  // namespace

int makeSqliteBackend(const Url& url, const Credentials&, std::unique_ptr<Backend>& backend, std::string& reason) {
    if (!namesOneFile(url, reason))
        return errorBadUrl;
    backend = std::make_unique<SqliteBackend>(url.path);
    return errorNone;
}

}  // namespace rdbopen
