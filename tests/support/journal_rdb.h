//  The memory that a test and the journal client library share (journal_rdb.cpp).
//
//      +---------+---------+
//      | answers | mailbox |     one file of a page, mapped by both
//      +---------+---------+
//
//  answers holds what the servers say from now on, until the test writes something else. The mailbox carries one event
//  or reply at a time to the library's thread: the test fills it and adds 1 to posted; the thread calls the service and
//  adds 1 to delivered. Both counters are futexes.
//
//  The journal is a file that every call appends one entry to: a JournalEntry and its payload of size bytes.
//
//      function              number         payload
//      rdb_connectex         reserved       url, account and password, each with its zero
//      rdb_callmsg           length         the text
//      rdb_tagget            0              the record as given
//      rdb_taginport         mode           the record as given
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
    std::int32_t results[journal_functions];  // returned by the functions; rdb_create ignores its own
    std::int32_t query_class;                 // tag class that rdb_tagget stores; all else but the name becomes 0xa5
    std::int32_t import_class;                // tag class that rdb_taginport stores; negative leaves the byte alone
    std::int32_t unused;
};

enum class JournalPost : std::int32_t { event, reply };

struct JournalMailbox {
    std::atomic<std::uint32_t> posted;
    std::atomic<std::uint32_t> delivered;
    JournalPost post;
    std::int32_t handle;  // event: whose receiver is called
    std::int32_t code;    // event: its code
    std::int32_t length;  // reply: bytes of text; it goes to the receiver named in the last rdb_callmsg
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
    std::uint32_t main_thread;  // 1 when the call came from the main thread
};
static_assert(sizeof(JournalEntry) == 32);

#endif
