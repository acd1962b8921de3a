#include "connect.h"

#include "localaddr.h"
#include "report.h"
#include "running_service.h"
#include "server_access.h"
#include "show.h"

#include <algorithm>
#include <cstdio>

namespace check {

namespace {

using Addresses = std::vector<std::string>;

Addresses sorted(Addresses addresses) {
    std::sort(addresses.begin(), addresses.end());
    addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
    return addresses;
}

std::string listed(const Addresses& addresses) {
    std::string text;
    for (const std::string& address : addresses)
        text += (text.empty() ? "" : ", ") + printable(address);
    return text.empty() ? "no address" : text;
}

//  Compares servers, and remembers whether anything differed, failed or was refused.
class CComparison {
public:
    CComparison(const CRunCls& run, const ConnectConsole& console) : run_(run), console_(console) {}

    void compare(ServerKind kind);

    //  Compares the answer of the resolver with the addresses that the DNS server has or, if it cannot show them,
    //  should have. Does nothing if dns_name_ is empty.
    void compareResolver();

    bool equal() const { return equal_; }

private:
    void print(const char* mark, const std::string& text) { console_.print(std::string("  ") + mark + " " + text); }
    void differ(const std::string& why) {
        print("differs", why);
        equal_ = false;
    }
    void fail(const std::string& reason) {
        print("failed ", printable(reason));
        equal_ = false;
    }
    void examine(CServerAccess& access);
    void compareHeld(CServerAccess& access, ServerKind kind);
    void explain(const Addresses& expected, ServerKind kind);

    const CRunCls& run_;
    const ConnectConsole& console_;
    std::string dns_name_;     // Holdings::name of the DNS server; also empty if its records were not read
    Addresses dns_addresses_;  // that the resolver should return
    bool equal_ = true;
};

void CComparison::compare(ServerKind kind) {
    if (!isConfigured(run_, kind)) {
        console_.print(std::string(nameOf(kind)) + ": left out by the settings");
        return;
    }
    CServerAccess access(run_, kind, {});
    const rdbopen::Status connected = access.connect();
    console_.print(std::string(nameOf(kind)) + (access.label().empty() ? "" : " " + printable(access.label())) + ":");
    if (!connected.ok()) {
        fail(connected.reason);
        return;
    }
    examine(access);
    compareHeld(access, kind);
}

void CComparison::examine(CServerAccess& access) {
    std::vector<rdbopen::Examination> results;
    const rdbopen::Status status = access.examine(results);
    for (const rdbopen::Examination& result : results) {
        const bool ok = result.status.ok();
        equal_ = equal_ && ok;
        print(ok ? "allowed" : "refused", printable(result.what + (ok ? "" : ": " + result.status.reason)));
    }
    if (!status.ok() && (results.empty() || status.code == rdbopen::errorBackendFailed))
        fail(status.reason);
}

void CComparison::compareHeld(CServerAccess& access, ServerKind kind) {
    const rdbopen::Result<Addresses> published = access.published(console_.addresses);
    const rdbopen::Result<rdbopen::Holdings> held = access.held();
    if (!published.ok() || !held.ok()) {
        fail(published.ok() ? held.status().reason : published.status().reason);
        return;
    }
    const Addresses expected = sorted(*published);
    print("expect ", listed(expected));
    if (kind == ServerKind::dns) {
        dns_name_ = held->name;
        dns_addresses_ = sorted(held->addresses.value_or(expected));
    }
    for (const std::string& remark : held->remarks)
        if (!held->addresses)
            print("note   ", printable(remark));
    if (!held->addresses)
        return;
    print("has    ", listed(*held->addresses));
    if (sorted(*held->addresses) != expected) {
        explain(expected, kind);
        return;
    }
    const rdbopen::Status records = access.compareRecords(console_.addresses);
    if (records.code == rdbopen::errorNotHeld)
        differ("the addresses are equal, but HTTPS or PTR records are not those of the settings; a service with these "
               "settings corrects them at its next check or update");
    else if (!records.ok())
        fail(records.reason);
}

void CComparison::explain(const Addresses& expected, ServerKind kind) {
    if (expected.empty() && kind == ServerKind::dns && console_.addresses.empty())
        differ("a host without an address sends no update, so the server keeps the last records");
    else if (!console_.service_runs)
        differ("the service does not run on this machine, so nothing is written");
    else if (expected.empty() && !console_.addresses.empty())
        differ("only and skip leave no address; the service deletes the records at its next update");
    else
        differ("the service writes a change within ten seconds and repeats what was refused or lost, with pauses of up "
               "to a minute; after that, lines \"rdbapi:\" in syslog have the reason");
}

void CComparison::compareResolver() {
    if (dns_name_.empty())
        return;
    console_.print("resolver, for " + printable(dns_name_) + ":");
    const ResolverAnswer answer = console_.resolve(dns_name_);
    if (!answer.problem.empty()) {
        fail(answer.problem);
        return;
    }
    print("has    ", listed(answer.addresses));
    if (sorted(answer.addresses) == dns_addresses_)
        return;
    if (answer.addresses.empty())
        differ("it has no address: it asks other servers than the settings name, or remembers that there was none");
    else
        differ("its answer is valid for " + std::to_string(answer.ttl) +
               " s more; if it differs then, it asks other servers than the settings name");
}

}  // namespace

int compareServers(const CRunCls& run, const ConnectConsole& console) {
    console.print("this host has " + listed(console.addresses));
    CComparison comparison(run, console);
    comparison.compare(ServerKind::rdb);
    comparison.compare(ServerKind::dns);
    comparison.compareResolver();
    return comparison.equal() ? status_clean : status_warnings;
}

int runConnect(const std::string& path) {
    CRunCls run;
    if (!run.loadConfig(path.c_str()) || run.hostname.empty()) {
        std::fprintf(stderr, "addrpubd-check: %s cannot be opened, or has no hostname\n", printable(path).c_str());
        return status_no_start;
    }
    std::string list;
    if (getLocalIpv6List(list) != 0) {
        std::fputs("addrpubd-check: the addresses of this host cannot be listed\n", stderr);
        return status_no_start;
    }
    return compareServers(run, {[](const std::string& line) { std::printf("%s\n", line.c_str()); },
                                rdbopen::addressesIn(list), askResolver, findRunningService(path).pid != 0});
}

}  // namespace check
