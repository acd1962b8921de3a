#include "sqlite/database.h"

namespace rdbopen {

namespace {

//  Maximum wait of a statement for another connection's lock, in ms. It is less than callLimit (engine/clock.h), so
//  that a waiting caller gets SQLite's error instead of a time-out.
constexpr int busyLimit = 2000;

constexpr int primaryResult = 0xff;  // mask for the primary code of an extended result

//  A null connection means that memory is exhausted.
Status failureOf(sqlite3* connection) {
    return backendFailed(connection == nullptr ? "out of memory" : sqlite3_errmsg(connection));
}

//  Returns a url by which SQLite opens the file at path as one that no program changes
//  (https://www.sqlite.org/uri.html, section 3.3).
std::string immutableUri(const std::string& path) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string uri = "file:";
    for (const char c : path) {
        if (c != '?' && c != '#' && c != '%') {
            uri += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        uri.append({'%', digits[byte >> 4], digits[byte & 15]});
    }
    return uri + "?immutable=1";
}

}  // namespace

SqliteStatement& SqliteStatement::bind(int index, std::int64_t value) {
    sqlite3_bind_int64(statement_.get(), index, value);
    return *this;
}

SqliteStatement& SqliteStatement::bind(int index, std::string_view text) {
    sqlite3_bind_text64(statement_.get(), index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
    return *this;
}

Result<bool> SqliteStatement::step() {
    const int result = sqlite3_step(statement_.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        return failureOf(sqlite3_db_handle(statement_.get()));
    return result == SQLITE_ROW;
}

Status SqliteStatement::run() {
    while (sqlite3_step(statement_.get()) == SQLITE_ROW) {
    }
    const int result = sqlite3_reset(statement_.get());
    return result == SQLITE_OK ? Status{} : failureOf(sqlite3_db_handle(statement_.get()));
}

std::string_view SqliteStatement::text(int index) {
    const auto* first = reinterpret_cast<const char*>(sqlite3_column_text(statement_.get(), index));
    const int size = sqlite3_column_bytes(statement_.get(), index);
    return first == nullptr ? std::string_view() : std::string_view(first, static_cast<std::size_t>(size));
}

Status SqliteDatabase::open(const std::string& path) {
    return openWith(path, SQLITE_OPEN_READWRITE);
}

Status SqliteDatabase::openReadOnly(const std::string& path, bool shared) {
    return shared ? openWith(path, SQLITE_OPEN_READONLY)
                  : openWith(immutableUri(path), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI);
}

Status SqliteDatabase::openWith(const std::string& path, int flags) {
    sqlite3* connection = nullptr;
    flags |= SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    const int result = sqlite3_open_v2(path.c_str(), &connection, flags, nullptr);
    connection_.reset(connection);
    if (result != SQLITE_OK || sqlite3_busy_timeout(connection, busyLimit) != SQLITE_OK)
        return lastFailure();
    return {};
}

void SqliteDatabase::abandon() {
    sqlite3_db_config(connection_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    close();
}

//  Ignores failures: data that remains in the log is already committed, and a later call writes this data into the
//  file.
void SqliteDatabase::emptyLog() {
    sqlite3_busy_timeout(connection_.get(), 0);
    sqlite3_wal_checkpoint_v2(connection_.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    sqlite3_busy_timeout(connection_.get(), busyLimit);
}

Result<std::string> SqliteDatabase::bytes() {
    sqlite3_int64 size = 0;
    const std::unique_ptr<unsigned char, decltype(&sqlite3_free)> image(
        sqlite3_serialize(connection_.get(), "main", &size, 0), &sqlite3_free);
    if (image == nullptr)
        return lastFailure();
    return std::string(reinterpret_cast<const char*>(image.get()), static_cast<std::size_t>(size));
}

Result<std::int64_t> SqliteDatabase::readFirstBytes(void* bytes, int count) {
    const Status unreadable = backendFailed("cannot be read as a regular file");
    sqlite3_file* file = nullptr;
    int result = sqlite3_file_control(connection_.get(), "main", SQLITE_FCNTL_FILE_POINTER, &file);
    if (result != SQLITE_OK || file == nullptr || file->pMethods == nullptr)
        return unreadable;
    sqlite3_int64 size = 0;
    result = file->pMethods->xFileSize(file, &size);
    if (result == SQLITE_OK)
        result = file->pMethods->xRead(file, bytes, count, 0);
    if (result != SQLITE_OK && result != SQLITE_IOERR_SHORT_READ)
        return unreadable;
    return std::int64_t{size};
}

Status SqliteDatabase::run(const char* sql) {
    const int result = sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr);
    return result == SQLITE_OK ? Status{} : lastFailure();
}

void SqliteDatabase::rollBack() {
    sqlite3_exec(connection_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

Result<SqliteStatement> SqliteDatabase::prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v3(connection_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    if (statement == nullptr)
        return lastFailure();
    SqliteStatement prepared;
    prepared.statement_.reset(statement);
    return prepared;
}

Result<std::int64_t> SqliteDatabase::number(const char* sql) {
    Result<SqliteStatement> query = prepare(sql);
    if (!query.ok())
        return query.status();
    const Result<bool> row = query->step();
    return row.ok() && *row ? Result(query->column(0)) : lastFailure();
}

Result<std::string> SqliteDatabase::text(const char* sql) {
    Result<SqliteStatement> query = prepare(sql);
    if (!query.ok())
        return query.status();
    const Result<bool> row = query->step();
    return row.ok() && *row ? Result(std::string(query->text(0))) : lastFailure();
}

Status SqliteDatabase::lastFailure() const {
    return failureOf(connection_.get());
}

bool SqliteDatabase::lastResultIsDamage() const {
    const int result = sqlite3_errcode(connection_.get()) & primaryResult;
    return result == SQLITE_CORRUPT || result == SQLITE_NOTADB;
}

bool SqliteDatabase::hasMoved() {
    int moved = 0;
    sqlite3_file_control(connection_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved);
    return moved != 0;
}

}  // namespace rdbopen
