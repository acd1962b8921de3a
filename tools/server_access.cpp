#include "server_access.h"

#include "dnsupdate.h"
#include "settings.h"

#include "backends.h"
#include "engine/clock.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>

namespace check {

namespace {

struct ServerSettings {
    const char* name;
    Setting url, user, password;
};

//  In the order of ServerKind.
constexpr ServerSettings known_servers[] = {
    {"rdb server", rdburl, rdbuser, rdbpswd},
    {"DNS server", dnsurl, dnsuser, dnspswd},
};

const ServerSettings& settingsOf(ServerKind kind) {
    return known_servers[static_cast<std::size_t>(kind)];
}

//  The client library gets the bytes before the first zero byte.
std::string beforeZero(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

std::string given(const CRunCls& run, Setting setting) {
    return beforeZero(run.*settings[setting].text);
}

//  Waits for a descriptor until a given time. Nothing else ends the wait, because there is no handle to close.
class PollWaiter final : public rdbopen::Waiter {
public:
    Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override {
        for (;;) {
            pollfd waited{descriptor, events, 0};
            const auto left = std::max<std::int64_t>((until - rdbopen::monotonicNow()).count(), 0);
            const int ready = poll(&waited, 1, static_cast<int>(std::min<std::int64_t>(left, 60000)));
            if (ready > 0)
                return Result::ready;
            if (ready < 0 && errno != EINTR)
                return Result::failed;
            if (left == 0)
                return Result::timedOut;
        }
    }
};

constexpr PollWaiter waiter;

}  // namespace

const char* nameOf(ServerKind kind) {
    return settingsOf(kind).name;
}

bool isConfigured(const CRunCls& run, ServerKind kind) {
    const ServerSettings& server = settingsOf(kind);
    return !(run.*settings[server.url].text).empty() && !(run.*settings[server.user].text).empty() &&
           !(run.*settings[server.password].text).empty();
}

CServerAccess::CServerAccess(const CRunCls& run, ServerKind kind, const std::vector<std::uint16_t>& ports)
    : host_{beforeZero(run.hostname), {}} {
    if (kind == ServerKind::rdb)
        host_.name.resize(std::min(host_.name.size(), sizeof(RdbTag::name) - 1));  // as the service cuts it
    const auto addPort = [this](std::uint16_t port) {
        if (std::find(host_.httpsPorts.begin(), host_.httpsPorts.end(), port) == host_.httpsPorts.end())
            host_.httpsPorts.push_back(port);
    };
    std::for_each(run.dnshttpsports.begin(), run.dnshttpsports.end(), addPort);
    std::for_each(ports.begin(), ports.end(), addPort);
    const ServerSettings& server = settingsOf(kind);
    rdbopen::BackendResult made =
        rdbopen::makeBackend(given(run, server.url), {given(run, server.user), given(run, server.password)});
    status_ = made.status();
    if (!made.ok()) {
        status_.reason.insert(0, std::string(settings[server.url].name) + ": ");
        return;
    }
    backend_ = std::move(*made);
    label_ = backend_->label();
    const bool serves = kind == ServerKind::rdb ? backend_->tags() != nullptr : backend_->updates() != nullptr;
    if (!serves || backend_->inspector() == nullptr)
        status_ = {rdbopen::errorNotSupported, std::string(settings[server.url].name) +
                                                   ": the back end of this scheme does not serve the " + server.name};
}

CServerAccess::~CServerAccess() {
    if (backend_ != nullptr)
        backend_->close();
}

rdbopen::Status CServerAccess::connect() {
    return status_.ok() ? backend_->inspector()->openToRead(waiter) : status_;
}

rdbopen::Result<rdbopen::Holdings> CServerAccess::held() {
    return backend_->inspector()->held(host_);
}

rdbopen::Result<std::vector<std::string>> CServerAccess::published(const std::vector<std::string>& addresses) {
    return backend_->inspector()->published(addresses);
}

rdbopen::Status CServerAccess::examine(std::vector<rdbopen::Examination>& results) {
    return backend_->inspector()->examine(host_, results);
}

//  The service sends no request while the host has no address, so there is nothing to compare then.
rdbopen::Status CServerAccess::compareRecords(const std::vector<std::string>& addresses) {
    if (backend_->updates() == nullptr || addresses.empty())
        return {};
    DnsUpdateItem item;
    item.name.append(host_.name.data(), host_.name.size());
    for (const std::string& address : addresses)
        splitAddressList(address, item.ipv6s);
    for (const std::uint16_t port : host_.httpsPorts)
        item.httpsports.push_back(port);
    olk::string text;
    writeDnsUpdateRequest(1, item, text);
    return backend_->updates()->checkRequest({text.c_str(), text.size()});
}

rdbopen::Status CServerAccess::remove(std::vector<rdbopen::RemovalStep>& steps) {
    return backend_->inspector()->remove(steps);
}

}  // namespace check
