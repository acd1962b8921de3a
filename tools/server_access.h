//  A server of the settings, as addrpubd-check itself contacts it: by the back end that the service would use.
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

    //  Returns the name of the server without user and password, "dns://ns.example.org/example.org". Empty if the back
    //  end could not be created.
    const std::string& label() const { return label_; }

    //  Connects without changing anything, and returns what the server has of the host. A failure includes that of the
    //  constructor. The limits of time are those of the back end.
    rdbopen::Result<rdbopen::Holdings> held();

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
