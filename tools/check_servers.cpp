//  Checks the settings of the two servers. The open client library creates a back end for each server that the service
//  would use, but does not connect.
#include "check.h"
#include "show.h"

#include "backends.h"
#include "net/secret.h"
#include "net/url.h"

namespace check {

namespace {

struct Server {
    const char* name;
    Setting url, user, password;
    bool (*served_by)(rdbopen::Backend& backend);
};

constexpr Server servers[] = {
    {"rdb server", rdburl, rdbuser, rdbpswd, [](rdbopen::Backend& backend) { return backend.tags() != nullptr; }},
    {"DNS server", dnsurl, dnsuser, dnspswd, [](rdbopen::Backend& backend) { return backend.updates() != nullptr; }},
};

std::string joined(const std::vector<std::string>& words) {
    std::string out;
    for (std::size_t i = 0; i < words.size(); ++i)
        out += (i == 0 ? "" : i + 1 == words.size() ? " and " : ", ") + words[i];
    return out;
}

//  Returns names of settings of the server. there: true for the settings that are set, false for those that are not.
std::vector<std::string> namesOf(const Subject& subject, const Server& server, bool there) {
    std::vector<std::string> names;
    for (const Setting setting : {server.url, server.user, server.password})
        if (subject.text(setting).empty() != there)
            names.emplace_back(settings[setting].name);
    return names;
}

void checkPassword(const Subject& subject, const Server& server, CReport& report) {
    const std::string& password = subject.text(server.password);
    const bool in_file = password.starts_with("file:/");
    std::string reason;
    if (in_file)
        reason = rdbopen::readSecret(subject.given(server.password)).status().reason;
    else if (password.starts_with("file:"))
        reason = "no absolute path follows file:, so the text itself is the password";
    if (!reason.empty())
        report.warn(subject.line[server.password],
                    std::string(settings[server.password].name) + ": " + printable(reason));
    else if (in_file)
        checkPasswordMode(subject, server.password, report);
}

//  Adds the advice of the module on the url.
void askModule(const Subject& subject, const Server& server, const rdbopen::Credentials& credentials, CReport& report) {
    const rdbopen::Result<rdbopen::Url> url = rdbopen::parseUrl(subject.given(server.url));
    if (!url.ok())
        return;
    const rdbopen::Result<const rdbopen::Module*> module = rdbopen::moduleForUrl(*url);
    if (!module.ok())
        return;  // the caller has already reported it
    const Setting about[] = {server.url, server.password, hostname};
    std::vector<rdbopen::Advice> advice;
    (*module)->advise({*url,
                       credentials,
                       settings[server.url].name,
                       settings[server.password].name,
                       subject.run.hostname,
                       {subject.run.dnshttpsports.begin(), subject.run.dnshttpsports.end()}},
                      advice);
    for (const rdbopen::Advice& one : advice)
        report.warn(subject.line[about[static_cast<std::size_t>(one.about)]], printable(one.text));
}

void checkBackend(const Subject& subject, const Server& server, CReport& report) {
    const std::string name = settings[server.url].name;
    const std::size_t line = subject.line[server.url];
    const rdbopen::Credentials credentials = {subject.given(server.user), subject.given(server.password)};
    rdbopen::BackendResult backend = rdbopen::makeBackend(subject.given(server.url), credentials);
    const rdbopen::Status& status = backend.status();
    if (status.code == rdbopen::errorUnknownScheme)
        report.fail(line, name + ": " + printable(status.reason) + ": this build has no such back end");
    else if (!status.ok())
        report.fail(line, name + ": " + printable(status.reason));
    else if (!server.served_by(**backend)) {
        report.warn(line, name + ": the back end of this scheme does not serve the " + server.name +
                              ": every request to it fails (rdburl and dnsurl exchanged?)");
        return;
    }
    askModule(subject, server, credentials, report);
}

//  Returns whether the service tries to connect to the server.
bool checkServer(const Subject& subject, const Server& server, CReport& report) {
    const std::vector<std::string> missing = namesOf(subject, server, false);
    if (missing.empty()) {
        report.words.push_back(std::string("it connects to the ") + server.name);
        checkPassword(subject, server, report);
        checkBackend(subject, server, report);
        return true;
    }
    report.words.push_back(std::string("the ") + server.name + " is left out");
    if (missing.size() == 3)
        return false;
    std::size_t line = 0;
    for (const Setting setting : {server.password, server.user, server.url})
        line = subject.line[setting] != 0 ? subject.line[setting] : line;
    report.warn(line, joined(missing) + (missing.size() == 1 ? " is" : " are") + " missing or empty, so the " +
                          server.name + " is left out");
    return false;
}

}  // namespace

void checkServers(const Subject& subject, CReport& report) {
    bool any = false;
    for (const Server& server : servers)
        any = checkServer(subject, server, report) || any;
    if (!any)
        report.warn(0, "neither server is configured: the service runs and publishes nothing");
}

}  // namespace check
