//  addrpubd-check --remove: deletes what the service has published with its settings, for a name that is retired.
//
//      addrpubd-check --remove [--yes] [--with-tag] [--port N]... [FILE]
//
//      DNS server dns://ns.example.org:53/example.org:
//        delete host1.example.org AAAA 2001:db8::1          what the service wrote
//        keep   host1.example.org TXT: it is of another type
//        note   names of other HTTPS ports ...              what may exist, but the server cannot be asked for it
//
//  Deletes nothing before it has printed this, and then only after "yes" was typed on a terminal, or with --yes.
//  Deletes nothing if it finds a service that runs with these settings (running_service.h), because that service would
//  publish the name again.
#ifndef TOOLS_REMOVE_H
#define TOOLS_REMOVE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class CRunCls;

namespace check {

struct RemoveOptions {
    bool yes = false;                  // delete without asking for confirmation
    bool with_tag = false;             // delete also from the rdb server
    std::vector<std::uint16_t> ports;  // further HTTPS ports of the host
    std::string file;                  // empty if the command line names none
};

//  Parses the words after --remove. Returns false with the reason in problem.
bool readRemoveOptions(int count, char** words, RemoveOptions& options, std::string& problem);

//  What the removal needs from its surroundings.
struct RemoveConsole {
    std::function<void(const std::string&)> print;  // one line, without line feed
    std::function<bool()> confirm;                  // asks the user; null if there is no terminal
    bool service_runs = false;                      // a service runs with these settings
};

//  Shows the records of the DNS server, and with options.with_tag also those of the rdb server. Deletes them if this is
//  allowed and confirmed. Returns status_clean if no record of the service remains at these servers. Otherwise, or if a
//  server did not answer or cannot show all records, returns status_warnings.
int removeName(const CRunCls& run, const RemoveOptions& options, const RemoveConsole& console);

//  The whole mode: reads the file options.file, and uses the terminal. Returns an exit status of the tool.
int runRemove(const RemoveOptions& options);

}  // namespace check

#endif
