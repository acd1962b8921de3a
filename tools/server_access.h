//  A connection of addrpubd-check to a server of the settings. It uses the back end that the service would use.
//
//  Threads: one thread at a time.
#ifndef TOOLS_SERVER_ACCESS_H
#define TOOLS_SERVER_ACCESS_H

#include "runcls.h"

#include "engine/backend.h"

#include <memory>
#include <string>
#include <vector>

namespace check {

enum class ServerKind { rdb, dns };

//  Returns "rdb server" or "DNS server".
const char* nameOf(ServerKind kind);

//  Returns whether the service would use the server: its three settings are not empty.
bool isConfigured(const CRunCls& run, ServerKind kind);

class CServerAccess {
public:
    //  Creates the back end and contacts nobody. ports: further HTTPS ports of the host.
    CServerAccess(const CRunCls& run, ServerKind kind, const std::vector<std::uint16_t>& ports);
    CServerAccess(const CServerAccess&) = delete;
    CServerAccess& operator=(const CServerAccess&) = delete;
    ~CServerAccess();

    //  Returns the name of the server without user and password, such as "dns://ns.example.org:53/example.org". Empty
    //  if the back end could not be created.
    const std::string& label() const { return label_; }

    //  Connects without changing anything. Also fails if the back end could not be created, or does not serve this kind
    //  of server. The time limits of this and all other operations are those of the back end.
    rdbopen::Status connect();

    //  Returns what the server has of the host. This and all operations below require that connect has succeeded.
    rdbopen::Result<rdbopen::Holdings> held();

    //  Returns those of the host's addresses that the service publishes at this server: those that pass the
    //  options "only" and "skip".
    rdbopen::Result<std::vector<std::string>> published(const std::vector<std::string>& addresses);

    //  Asks whether the server allows what the service does (engine/inspector.h).
    rdbopen::Status examine(std::vector<rdbopen::Examination>& results);

    //  Compares the host's records at a DNS server with those that the service writes for these addresses. Fails with
    //  errorNotHeld if they differ. Returns ok if there are no addresses, or if the back end has no such check.
    rdbopen::Status compareRecords(const std::vector<std::string>& addresses);

    //  Deletes the records of the service that held has returned (engine/inspector.h). Requires: held has succeeded.
    rdbopen::Status remove(std::vector<rdbopen::RemovalStep>& steps);

private:
    rdbopen::Status status_;
    std::unique_ptr<rdbopen::Backend> backend_;
    std::string label_;
    rdbopen::HostNames host_;
};

}  // namespace check

#endif
