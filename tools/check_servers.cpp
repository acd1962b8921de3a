//  Checks the settings of the two servers. The open client library creates its back ends for their urls, without
//  connecting.
#include "check.h"
#include "show.h"

#include "backends.h"
#include "files/path.h"
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

//  The back ends that this build leaves out. The last row exists because an array must not be empty.
constexpr struct {
    std::string_view scheme;
    std::string_view packages;
} left_out[] = {
#include "left_out.inc"
    {"", ""},
};

//  Returns advice on a scheme that this build does not support.
std::string advice(const std::string& url_text) {
    rdbopen::Url url;
    std::string reason;
    rdbopen::parseUrl(url_text, url, reason);
    for (const auto& row : left_out)
        if (!url.scheme.empty() && row.scheme == url.scheme)
            return "its back end is left out of this build; to include it, install " + std::string(row.packages) +
                   " and build again";
    return "this build has no such back end";
}

std::string joined(const std::vector<std::string>& words) {
    std::string out;
    for (std::size_t i = 0; i < words.size(); ++i)
        out += (i == 0 ? "" : i + 1 == words.size() ? " and " : ", ") + words[i];
    return out;
}

//  Returns the names of those of the server's three settings that are set (there is true) or not set.
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

//  A user who may create files in the folder of the server's file can replace it by a link or by another file.
void checkFolder(const Subject& subject, const Server& server, CReport& report) {
    rdbopen::Url url;
    rdbopen::FilePlace place;
    std::string reason;
    if (!rdbopen::parseUrl(subject.given(server.url), url, reason) || (url.scheme != "hosts" && url.scheme != "sqlite"))
        return;
    static_cast<void>(rdbopen::resolveFile(url.path, place));  // place.shared is known after a failure, too
    if (!place.shared.empty())
        report.warn(subject.line[server.url],
                    std::string(settings[server.url].name) + ": other users can create files in " +
                        printable(place.shared) +
                        ", a folder of the path: use a folder that only the service may write to");
}

void checkBackend(const Subject& subject, const Server& server, CReport& report) {
    const std::string name = settings[server.url].name;
    const std::size_t line = subject.line[server.url];
    const rdbopen::Credentials credentials = {subject.given(server.user), subject.given(server.password)};
    std::unique_ptr<rdbopen::Backend> backend;
    std::string reason;
    const int code = rdbopen::makeBackend(subject.given(server.url), credentials, backend, reason);
    if (code == rdbopen::errorUnknownScheme)
        report.fail(line, name + ": " + printable(reason) + ": " + advice(subject.given(server.url)));
    else if (code != rdbopen::errorNone)
        report.fail(line, name + ": " + printable(reason));
    else if (!server.served_by(*backend))
        report.warn(line, name + ": the back end of this scheme does not serve the " + server.name +
                              ": every request to it fails (rdburl and dnsurl exchanged?)");
    else
        checkFolder(subject, server, report);
}

//  Returns whether the service connects to the server.
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
