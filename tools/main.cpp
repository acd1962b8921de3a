//  The main function of addrpubd-check.
#include "check.h"
#include "connect.h"
#include "inifile.h"
#include "remove.h"
#include "show.h"
#include "status.h"

#include <cstdio>
#include <cstring>

namespace {

//  Path of the ini file after an installation of this build.
constexpr char usual_place[] = ADDRPUBD_INI;

constexpr char usage[] =
    "usage: addrpubd-check [FILE]\n"
    "       addrpubd-check --status [--json | --prometheus] [INSTANCE | FOLDER]\n"
    "       addrpubd-check --connect [FILE]\n"
    "       addrpubd-check --remove [--yes] [--with-tag] [--port N]... [FILE]\n"
    "\n"
    "Reports what addrpubd does with an ini file. Without FILE it checks the addrpubd.ini in the\n"
    "folder of this program or, if there is none, " ADDRPUBD_INI ".\n"
    "\n"
    "--status reports what the running service does, as text, JSON or metrics for Prometheus. It\n"
    "reads the state in /run/addrpubd, in /run/addrpubd/INSTANCE, or in FOLDER, which contains a \"/\".\n"
    "\n"
    "--connect contacts the servers, changes nothing, and compares what they have with the addresses\n"
    "of this host and with the answer of the system's resolver.\n"
    "\n"
    "--remove shows what the service has published with these settings in DNS, and deletes it\n"
    "after a confirmation on the terminal, or with --yes. --with-tag also deletes tag, value and\n"
    "history in the database; --port names a further HTTPS port of the host.\n"
    "\n"
    "Exit status: 0 no warnings, 1 warnings, 2 the service would not start, or FILE cannot be examined.\n"
    "With --status: 0 all servers have confirmed the addresses, 1 a server has not, 2 the service is\n"
    "not running, or its state cannot be read.\n"
    "With --connect: 0 everything is equal and allowed, 1 something is not, or cannot be asked, 2 wrong\n"
    "settings, or the addresses of this host cannot be listed.\n"
    "With --remove: 0 no record remains, 1 records remain, or a server cannot be asked, 2 wrong\n"
    "settings.\n"
    "In every mode, 2 also means a wrong command line or output that cannot be written.\n";

//  Sets path to the file to check. Returns false for a wrong command line, with the reason in problem.
bool readArguments(int argc, char** argv, std::string& path, std::string& problem) {
    if (argc > 2)
        problem = "more than one file is named";
    else if (argc == 2 && argv[1][0] == '-')
        problem = std::string("there is no option ") + argv[1] + " (a file of that name is ./" + argv[1] + ")";
    else if (argc == 2 && argv[1][0] == '\0')
        problem = "the name of the file is empty";
    else
        path = argc == 2 ? std::string(argv[1]) : check::defaultPath(getExeDir(), usual_place);
    return problem.empty();
}

int fail(const std::string& problem) {
    std::fprintf(stderr, "addrpubd-check: %s\n", check::printable(problem).c_str());
    return check::status_no_start;
}

int misused(const std::string& problem) {
    fail(problem);
    std::fputs(usage, stderr);
    return check::status_no_start;
}

int print(const std::string& text, int status) {
    std::fputs(text.c_str(), stdout);
    return status;
}

int removeMode(int count, char** words) {
    check::RemoveOptions options;
    std::string problem;
    if (!check::readRemoveOptions(count, words, options, problem))
        return misused(problem);
    if (options.file.empty())
        options.file = check::defaultPath(getExeDir(), usual_place);
    return check::runRemove(options);
}

int run(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0)
        return print(usage, check::status_clean);
    if (argc >= 2 && std::strcmp(argv[1], "--status") == 0)
        return status::run(argc - 2, argv + 2, usage);
    if (argc > 1 && std::strcmp(argv[1], "--remove") == 0)
        return removeMode(argc - 2, argv + 2);
    const bool connects = argc > 1 && std::strcmp(argv[1], "--connect") == 0;
    std::string path;
    std::string problem;
    if (!readArguments(argc - (connects ? 1 : 0), argv + (connects ? 1 : 0), path, problem))
        return misused(problem);
    if (connects)
        return check::runConnect(path);
    check::CReport report;
    report.file = path;
    if (!check::checkFile(path, report, problem))
        return fail(path + ": " + problem);
    return print(report.text(), report.exitStatus());
}

}  // namespace

int main(int argc, char** argv) {
    const int status = run(argc, argv);
    const bool written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    return written ? status : fail("the output cannot be written");
}
