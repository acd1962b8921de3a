//  addrpubd-check --connect: contacts the servers of the settings, changes nothing, and compares what they have with
//  the addresses of this host.
//
//      this host has 2001:db8::1, fd00::1
//      DNS server dns://ns.example.org:53/example.org:
//        allowed update the records of host1.example.org       what the service does there
//        refused update PTR records in ...: REFUSED ...
//        expect  2001:db8::1                                    passes the options "only" and "skip"
//        has     2001:db8::1
//        differs ...                                            with the reason
//      resolver, for host1.example.org:
//        has     2001:db8::1
#ifndef TOOLS_CONNECT_H
#define TOOLS_CONNECT_H

#include "resolver.h"

#include <functional>
#include <string>
#include <vector>

class CRunCls;

namespace check {

//  What a comparison needs from its surroundings.
struct ConnectConsole {
    std::function<void(const std::string&)> print;  // one line, without line feed
    std::vector<std::string> addresses;             // of this host, as the service lists them
    std::function<ResolverAnswer(const std::string&)> resolve;
    bool service_runs = false;  // a service runs on this machine
};

//  Returns status_clean if every configured server allows what the service does and has the data that the service
//  writes, and if the resolver answers with the addresses of the DNS server; else status_warnings. If a server cannot
//  show its records, they are not compared. The resolver is asked only if the host's name in DNS is known.
int compareServers(const CRunCls& run, const ConnectConsole& console);

//  Runs addrpubd-check --connect with the settings in the file at path. Returns an exit status of the tool.
int runConnect(const std::string& path);

}  // namespace check

#endif
