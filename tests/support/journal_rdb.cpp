//  A client library for runs of many thousand calls. It writes every call to a file and stores nothing in memory. So
//  the service causes any growth of the process.
//
//  JOURNAL_RDB_FILE      the journal
//  JOURNAL_RDB_CONTROL   the shared page (journal_rdb.h)
//
//  Its only thread starts with the first rdb_create. It blocks all signals, because signals are for the service's own
//  thread.
#include "journal_rdb.h"

#include "rdbapi.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr int handle_limit = 4;

struct Receiver {
    RdbMessageNotify callback;
    void* user;
};

JournalControl* g_control = nullptr;
int g_journal = -1;
int g_created = 0;
Receiver g_receivers[handle_limit];
RdbReply g_reply = nullptr;
void* g_reply_user = nullptr;

void deliver(const JournalMailbox& mailbox) {
    if (mailbox.post == JournalPost::reply) {
        g_reply(mailbox.text, mailbox.length, g_reply_user);
        return;
    }
    const Receiver& receiver = g_receivers[mailbox.handle];
    receiver.callback(mailbox.code, 0, receiver.user);
}

void serve() {
    JournalMailbox& mailbox = g_control->mailbox;
    for (;;) {
        const std::uint32_t done = mailbox.delivered;
        while (mailbox.posted == done) {
            syscall(SYS_futex, &mailbox.posted, FUTEX_WAIT, done, nullptr, nullptr, 0);
        }
        deliver(mailbox);
        ++mailbox.delivered;
        syscall(SYS_futex, &mailbox.delivered, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    }
}

//  Opens the two files. The library cannot work without them, so a failure ends the process.
void open_outside() {
    g_journal = open(std::getenv("JOURNAL_RDB_FILE"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    const int fd = open(std::getenv("JOURNAL_RDB_CONTROL"), O_RDWR | O_CLOEXEC);
    void* const map = mmap(nullptr, sizeof(JournalControl), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (g_journal < 0 || map == MAP_FAILED) {
        std::abort();
    }
    close(fd);
    g_control = static_cast<JournalControl*>(map);

    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread(serve).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

//  Appends the call with one write. It takes no lock, because a signal handler may have interrupted another call.
int enter(JournalFunction function, int handle, int result, int number, const void* payload, std::size_t size) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const bool main_thread = gettid() == getpid();
    JournalEntry entry{now.tv_sec * 1'000'000'000 + now.tv_nsec,
                       function,
                       handle,
                       result,
                       number,
                       static_cast<std::uint32_t>(size),
                       main_thread ? 1U : 0U};
    iovec pieces[] = {{&entry, sizeof entry}, {const_cast<void*>(payload), size}};
    if (writev(g_journal, pieces, 2) != static_cast<ssize_t>(sizeof entry + size)) {
        std::abort();
    }
    return result;
}

int answer(JournalFunction function, int handle, int number = 0, const void* payload = nullptr, std::size_t size = 0) {
    const int result = g_control->answers.results[static_cast<int>(function)];
    return enter(function, handle, result, number, payload, size);
}

}  // namespace

int rdb_create(void) {
    static std::once_flag opened;
    std::call_once(opened, open_outside);
    const int handle = g_created++;
    return enter(JournalFunction::create, handle, handle, 0, nullptr, 0);
}

int rdb_setmessagenotify(int handle, RdbMessageNotify callback, void* user) {
    g_receivers[handle] = {callback, user};
    return answer(JournalFunction::setmessagenotify, handle);
}

int rdb_connectex(int handle, const char* url, const char* user, const char* password, int reserved) {
    std::string texts;
    for (const char* text : {url, user, password}) {
        texts.append(text, std::strlen(text) + 1);
    }
    return answer(JournalFunction::connectex, handle, reserved, texts.data(), texts.size());
}

int rdb_callmsg(int handle, const char* text, std::int32_t length, RdbReply callback, void* user) {
    g_reply = callback;
    g_reply_user = user;
    return answer(JournalFunction::callmsg, handle, length, text, static_cast<std::size_t>(length));
}

int rdb_tagget(int handle, RdbTag* tag) {
    const int result = answer(JournalFunction::tagget, handle, 0, tag, sizeof *tag);
    RdbTag filled;
    std::memset(&filled, 0xa5, sizeof filled);
    std::memcpy(filled.name, tag->name, sizeof filled.name);
    filled.tagclass = static_cast<std::uint8_t>(g_control->answers.query_class);
    *tag = filled;
    return result;
}

int rdb_taginport(int handle, int mode, RdbTag* tag, std::int32_t*) {
    const int result = answer(JournalFunction::taginport, handle, mode, tag, sizeof *tag);
    if (g_control->answers.import_class >= 0) {
        tag->tagclass = static_cast<std::uint8_t>(g_control->answers.import_class);
    }
    return result;
}

int rdb_objputsnapshot(int handle, const RdbSnapshot* records, int count) {
    const std::size_t size = sizeof *records * static_cast<std::size_t>(count);
    return answer(JournalFunction::objputsnapshot, handle, count, records, size);
}

int rdb_disconnect(int handle) {
    return answer(JournalFunction::disconnect, handle);
}

int rdb_destory(int handle) {
    return answer(JournalFunction::destory, handle);
}
