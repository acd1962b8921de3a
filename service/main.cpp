//  The main function: finds the command word and calls its function.
#include "daemon.h"
#include "runcls.h"

#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

namespace {

constexpr char description[] = "addrpubd for linux";
constexpr int stop_timeout_seconds = 300;

struct Command {
    const char* word;
    void (*run)();
};

void printVersion() {
    std::printf("%s %s %s\n", g_daemon.service_name, description, g_daemon.version);
}

//  Upper and lower case make no difference in words.
const Command commands[] = {
    {"-start", [] { g_daemon.start(); }},
    {"-stop", [] { g_daemon.stop(stop_timeout_seconds); }},
    {"-status", [] { g_daemon.status(); }},
    {"-ver", printVersion},
    {"-version", printVersion},
    {"-run", [] { g_daemon.runConsole(); }},
};

//  Fills the process descriptor. Before this call the key of the queue is 0.
void describeService() {
    std::snprintf(g_daemon.pid_path, sizeof g_daemon.pid_path, "/var/run/addrpubd.pid");
    std::snprintf(g_daemon.service_name, sizeof g_daemon.service_name, "addrpubd");
    std::snprintf(g_daemon.version, sizeof g_daemon.version, "ver 1.0.4 build 2025-4-11");
    g_daemon.msg_key = 23213;
}

//  Handles an unknown word and extra words. It deliberately prints nothing; it only creates and destroys a service
//  object.
void ignoreCommand() {
    delete new CRunCls;
}

void runCommand(const char* word) {
    for (const Command& command : commands) {
        if (strcasecmp(word, command.word) == 0) {
            command.run();
            return;
        }
    }
    ignoreCommand();
}

//  Opens /dev/null for each standard descriptor that is closed. Otherwise the pid file, a socket or a file of the
//  client library could get the number of a standard descriptor. Output would then be written to this file or socket,
//  and redirecting the standard descriptors would close it.
void fillStandardDescriptors() {
    int fd;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd != -1 && fd <= STDERR_FILENO);
    if (fd != -1)
        close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    fillStandardDescriptors();
    tzset();
    std::putchar('\n');
    describeService();
    if (argc == 2)
        runCommand(argv[1]);
    else if (argc == 1)
        g_daemon.usage();
    else
        ignoreCommand();
    return 0;
}
