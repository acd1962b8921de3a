//  The memory shared by a test and the journal client library (journal_rdb.cpp).
//
//      +---------+---------+
//      | answers | mailbox |     one file of a page, mapped by both
//      +---------+---------+
//
//  answers contains the servers' results until the test changes them. The mailbox passes one event or reply at a time
//  to the library's thread: the test writes it and increments posted; the thread calls the service and increments
//  delivered. Both counters are futexes.
//
//  The journal is a file. Each call appends a JournalEntry and its payload of size bytes.
//
//      function              number         payload
//      rdb_connectex         reserved       url, user and password, each with its zero
//      rdb_callmsg           length         the text
//      rdb_tagget            0              the record as passed
//      rdb_taginport         mode           the record as passed
//      rdb_objputsnapshot    count          the records
//      all others            0              nothing
#ifndef TESTS_SUPPORT_JOURNAL_RDB_H
#define TESTS_SUPPORT_JOURNAL_RDB_H

#include <atomic>
#include <cstdint>

enum class JournalFunction : std::int32_t {
    create,
    setmessagenotify,
    connectex,
    callmsg,
    tagget,
    taginport,
    objputsnapshot,
    disconnect,
    destory,
};
constexpr int journal_functions = 9;

struct JournalAnswers {
    std::int32_t results[journal_functions];  // results of the functions; the result of rdb_create is ignored
    std::int32_t query_class;   // tag class that rdb_tagget stores; it sets all other bytes except the name to 0xa5
    std::int32_t import_class;  // tag class that rdb_taginport stores; if negative, the class is not changed
    std::int32_t unused;
};

enum class JournalPost : std::int32_t { event, reply };

struct JournalMailbox {
    std::atomic<std::uint32_t> posted;
    std::atomic<std::uint32_t> delivered;
    JournalPost post;
    std::int32_t handle;  // event: the handle whose callback is called
    std::int32_t code;    // event: code of the event
    std::int32_t length;  // reply: length of the text, which is passed to the callback of the last rdb_callmsg
    char text[4024];
};

struct JournalControl {
    JournalAnswers answers;
    JournalMailbox mailbox;
};
static_assert(sizeof(JournalControl) == 4096);

struct JournalEntry {
    std::int64_t wall;  // the process's wall clock, nanoseconds since the epoch
    JournalFunction function;
    std::int32_t handle;
    std::int32_t result;
    std::int32_t number;
    std::uint32_t size;
    std::uint32_t main_thread;  // 1 if the call came from the main thread
};
static_assert(sizeof(JournalEntry) == 32);

#endif
