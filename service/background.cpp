//  The background start: parent and child.
//
//      parent   claims the pid file   fork   releases it   polls the queue, prints each text ............ removes it
//      child                                 setsid, chdir   claims the pid file   starts, sends texts   /dev/null  runs
//
//  The file is claimed twice on purpose: the parent's claim orders two starts, the child's puts its own pid there.
#include "daemon.h"
#include "exitsignal.h"
#include "msgqueue.h"
#include "runcls.h"

#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char end_marker[] = "finished";
constexpr useconds_t poll_microseconds = 100'000;
constexpr int poll_limit = 300;         // polls in all, about 30 s
constexpr int silent_polls = 100;       // a child that has said nothing when the counter is above this
constexpr int silent_poll_limit = 150;  // is waited for so many polls only, about 15 s

//  Flushes standard output. A reader that has gone away, such as "head" in "-start | head -n 1", must not end the parent
//  before it has removed the queue, nor the child before it is the service. SIGPIPE is ignored during the flush only: the
//  client library and the processes that it starts keep the disposition that the program was started with.
void flushOutput() {
    struct sigaction ignored = {};
    struct sigaction previous = {};
    ignored.sa_handler = SIG_IGN;
    const bool ignoring = sigaction(SIGPIPE, &ignored, &previous) == 0;
    std::fflush(stdout);
    if (ignoring)
        sigaction(SIGPIPE, &previous, nullptr);
}

//  Points the three standard descriptors at /dev/null. What was printed before reaches its reader first.
void redirectStandardDescriptors() {
    flushOutput();
    const int fd = open("/dev/null", O_RDWR);
    if (fd == -1)
        return;
    for (int target = STDIN_FILENO; target <= STDERR_FILENO; ++target)
        dup2(fd, target);
    close(fd);
}

//  Prints the texts of the queue until the end marker or a limit.
void printTexts(CMsgQueue& queue) {
    //  One byte more than a message may have: a text that fills the buffer still ends.
    char text[CMsgQueue::max_text + 1] = {};
    int received = 0;
    int limit = poll_limit;
    for (int polls = 0; polls < limit; ++polls) {
        usleep(poll_microseconds);
        if (queue.isOpen() && queue.receive(text) > 0) {
            std::printf("%s", text);
            flushOutput();
            if (strcasecmp(text, end_marker) == 0) {
                std::putchar('\n');
                return;
            }
            ++received;
        }
        if (received == 0 && polls > silent_polls)
            limit = silent_poll_limit;
    }
}

}  // namespace

int CDaemon::start() {
    int result = 0;
    if (!claimInstance(result))
        return result;
    flushOutput();
    const pid_t child = fork();
    if (child == -1)
        return -1;
    if (child == 0)
        return runChild();
    awaitChild();
    return 0;
}

void CDaemon::awaitChild() {
    closePidFile();
    CMsgQueue queue(msg_key);
    printTexts(queue);
    if (queue.isOpen())
        queue.remove();
    redirectStandardDescriptors();
}

//  Returns only when the child cannot become the service.
int CDaemon::runChild() {
    CMsgQueue queue(msg_key);
    setsid();
    if (chdir("/") != 0) {
        queue.send("chdir failed\n");
        queue.send(end_marker);
        return 2;
    }
    umask(0);
    writePid();
    auto* run = new CRunCls;
    if (queue.send("\nstart...\r") != 0)
        std::puts("send message failed");
    if (run == nullptr || !run->start()) {
        queue.send("Start failed!\n");
        queue.send(end_marker);
        closePidFile();
        CRunCls::forgetLog(run);
        std::exit(4);
    }
    redirectStandardDescriptors();
    application = run;
    queue.send("Start success!\n\n");
    queue.send(end_marker);
    installExitSignals();
    for (;;)
        run->publishOnce();
}
