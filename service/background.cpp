//  Start in the background: the code of the parent and of the child.
//
//      parent   claims the pid file, forks, unlocks the pid file, prints each text of the queue, removes the queue
//      child    setsid, chdir, claims the pid file, sends "start...", starts the service, redirects the standard
//               descriptors to /dev/null, sends the result, runs the service
//
//  If the start fails, the child sends the result and exits.
//
//  The pid file is deliberately claimed twice. The parent's claim orders concurrent starts. The child's claim writes
//  the pid of the service into the file.
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
constexpr int poll_limit = 300;         // maximum number of polls, about 30 s
constexpr int silent_polls = 100;       // after about this number of polls without a text, silent_poll_limit applies
constexpr int silent_poll_limit = 150;  // maximum number of polls in this case, about 15 s

//  Flushes standard output. Its reader, such as "head" in "-start | head -n 1", may have exited, which causes SIGPIPE.
//  The signal must not end the parent before the parent removes the queue, nor the child before the child is the
//  service. So SIGPIPE is ignored, but only during the flush: the client library, and any process that it starts, keep
//  the disposition that the program had at its start.
void flushOutput() {
    struct sigaction ignored = {};
    struct sigaction previous = {};
    ignored.sa_handler = SIG_IGN;
    const bool ignoring = sigaction(SIGPIPE, &ignored, &previous) == 0;
    std::fflush(stdout);
    if (ignoring)
        sigaction(SIGPIPE, &previous, nullptr);
}

//  Redirects the three standard descriptors to /dev/null. Flushes first, so that earlier output reaches its reader.
void redirectStandardDescriptors() {
    flushOutput();
    const int fd = open("/dev/null", O_RDWR);
    if (fd == -1)
        return;
    for (int target = STDIN_FILENO; target <= STDERR_FILENO; ++target)
        dup2(fd, target);
    close(fd);
}

//  Prints the texts of the queue until the end marker or until the maximum number of polls.
void printTexts(CMsgQueue& queue) {
    //  One byte more than the longest message, so that a zero byte always follows the text.
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

//  Becomes the service. Returns only if the child cannot change its directory.
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
        CRunCls::detachLog(run);
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
