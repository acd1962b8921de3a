#include "remove.h"

#include "report.h"
#include "running_service.h"
#include "server_access.h"
#include "show.h"

#include "net/url.h"

#include <cstdio>
#include <list>

#include <unistd.h>

namespace check {

namespace {

//  One server of a removal: what it has, and what was deleted there.
class CRemoval {
public:
    CRemoval(const CRunCls& run, ServerKind kind, const RemoveOptions& options)
        : kind_(kind), access_(run, kind, options.ports) {}

    //  Asks the server and prints what it has.
    void show(const RemoveConsole& console);

    //  Returns the number of records to delete.
    std::size_t count() const { return count_; }

    void remove(const RemoveConsole& console);

    //  Returns whether the server answered, and has no record of the service any more.
    bool done() const { return done_; }

private:
    const ServerKind kind_;
    CServerAccess access_;
    std::size_t count_ = 0;
    bool complete_ = false;  // the server has shown all records of the service
    bool done_ = false;
};

void CRemoval::show(const RemoveConsole& console) {
    const rdbopen::Status connected = access_.connect();
    const rdbopen::Result<rdbopen::Holdings> held =
        connected.ok() ? access_.held() : rdbopen::Result<rdbopen::Holdings>(connected);
    console.print(std::string(nameOf(kind_)) + (access_.label().empty() ? "" : " " + printable(access_.label())) + ":");
    if (!held.ok()) {
        console.print("  failed " + printable(held.status().reason));
        return;
    }
    for (const rdbopen::HeldRecord& record : held->records) {
        const std::string text = printable(record.text);
        console.print(record.ours() ? "  delete " + text : "  keep   " + text + ": " + record.remains);
        count_ += record.ours() ? 1 : 0;
    }
    if (held->records.empty())
        console.print("  nothing of this name");
    for (const std::string& remark : held->remarks)
        console.print("  note   " + printable(remark));
    complete_ = !held->incomplete;
    done_ = complete_ && count_ == 0;
}

void CRemoval::remove(const RemoveConsole& console) {
    std::vector<rdbopen::RemovalStep> steps;
    const rdbopen::Status status = access_.remove(steps);
    done_ = complete_ && status.ok();
    for (const rdbopen::RemovalStep& step : steps) {
        for (const std::string& text : step.texts)
            console.print((step.status.ok() ? "  deleted " : "  remains ") + printable(text));
        if (!step.status.ok())
            console.print("  failed  " + printable(step.status.reason));
    }
    if (steps.empty() && !status.ok())
        console.print("  failed  " + printable(status.reason));
}

std::string counted(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " record" : " records");
}

//  Returns whether the shown records may be deleted. Prints the reason if not.
bool mayDelete(std::size_t count, const RemoveOptions& options, const RemoveConsole& console) {
    if (console.service_runs) {
        console.print("nothing was deleted: the service runs with these settings and would publish the name again; "
                      "stop it first");
        return false;
    }
    if (options.yes)
        return true;
    if (!console.confirm) {
        console.print("nothing was deleted: add --yes to delete " + counted(count));
        return false;
    }
    if (console.confirm())
        return true;
    console.print("nothing was deleted");
    return false;
}

bool takePort(const char* word, std::vector<std::uint16_t>& ports) {
    const auto number = rdbopen::parseNumber(word, UINT16_MAX);
    if (!number || *number == 0)
        return false;
    ports.push_back(static_cast<std::uint16_t>(*number));
    return true;
}

bool askOnTerminal() {
    std::fputs("Type yes to delete: ", stdout);
    std::fflush(stdout);
    char line[16] = {};
    return std::fgets(line, sizeof line, stdin) != nullptr && std::string(line) == "yes\n";
}

}  // namespace

bool readRemoveOptions(int count, char** words, RemoveOptions& options, std::string& problem) {
    for (int i = 0; i < count; ++i) {
        const std::string word = words[i];
        if (word == "--yes")
            options.yes = true;
        else if (word == "--with-tag")
            options.with_tag = true;
        else if (word == "--port" && ++i < count && takePort(words[i], options.ports))
            continue;
        else if (word == "--port")
            problem = "--port needs a number from 1 to 65535";
        else if (word.empty() || word[0] == '-')
            problem = word.empty() ? "the name of the file is empty" : "--remove has no option " + word;
        else if (!options.file.empty())
            problem = "more than one file is named";
        else
            options.file = word;
    }
    return problem.empty();
}

int removeName(const CRunCls& run, const RemoveOptions& options, const RemoveConsole& console) {
    std::list<CRemoval> removals;
    std::size_t count = 0;
    bool done = true;
    if (isConfigured(run, ServerKind::dns))
        removals.emplace_back(run, ServerKind::dns, options);
    if (isConfigured(run, ServerKind::rdb) && options.with_tag)
        removals.emplace_back(run, ServerKind::rdb, options);
    for (CRemoval& removal : removals) {
        removal.show(console);
        count += removal.count();
    }
    if (isConfigured(run, ServerKind::rdb) && !options.with_tag)
        console.print("rdb server: not asked; --with-tag also deletes tag, value and history");
    if (removals.empty())
        console.print("nothing to delete: the settings use no DNS server");
    if (count != 0 && mayDelete(count, options, console))
        for (CRemoval& removal : removals)
            if (removal.count() != 0)
                removal.remove(console);
    for (const CRemoval& removal : removals)
        done = done && removal.done();
    return done ? status_clean : status_warnings;
}

int runRemove(const RemoveOptions& options) {
    CRunCls run;
    if (!run.loadConfig(options.file.c_str()) || run.hostname.empty()) {
        std::fprintf(stderr, "addrpubd-check: %s cannot be opened, or has no hostname\n",
                     printable(options.file).c_str());
        return status_no_start;
    }
    const RunningService service = findRunningService(options.file);
    RemoveConsole console{[](const std::string& line) { std::printf("%s\n", line.c_str()); },
                          {},
                          service.pid != 0 && service.uses_settings};
    if (isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1)
        console.confirm = askOnTerminal;
    if (service.pid != 0 && !service.uses_settings)
        console.print("process " + std::to_string(service.pid) +
                      " is a service with other settings; if it publishes this name, it does so again");
    return removeName(run, options, console);
}

}  // namespace check
