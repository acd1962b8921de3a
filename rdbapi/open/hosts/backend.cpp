#include "hosts/backend.h"

#include "files/lock.h"
#include "files/replace.h"
#include "hosts/hosts_file.h"
#include "net/url.h"
#include "request/dns_request.h"

#include <cerrno>
#include <system_error>

namespace rdbopen {

namespace {

constexpr std::chrono::milliseconds lockLimit{2000};

//  How often an update is made anew because somebody edited the file meanwhile.
constexpr int maxAttempts = 5;

Outcome failedTo(const char* what, int error) {
    return backendFailed(std::string(what) + ": " + std::generic_category().message(error));
}

class HostsBackend : public Backend {
public:
    explicit HostsBackend(const std::string& path) : path_(path) {}

    std::string label() const override { return "hosts://" + path_; }
    bool serves(Service service) const noexcept override { return service == Service::messages; }

    Outcome open(const Waiter& waiter) override;
    void close() noexcept override {}
    Outcome message(std::string_view text, std::string& reply) override;
    std::string refusal(std::string_view text, int code) override;

private:
    Outcome update(const DnsRequest& request);
    Outcome flush(const FilePlace& place);

    std::string path_;
    bool flushed_ = false;  // the directory, since this back end last renamed a file in it
};

Outcome HostsBackend::open(const Waiter&) {
    FilePlace place;
    if (const std::string reason = resolveFile(path_, place); !reason.empty())
        return backendFailed("the file cannot be reached: " + reason);
    FileLock lock;
    if (const int error = lock.acquire(place.lock(), lockLimit); error != 0)
        return failedTo("the lock file cannot be locked", error);
    FileText text;
    if (const int error = readFile(place, text); error != 0)
        return failedTo("the file cannot be read", error);
    if (const int error = checkWritable(place); error != 0)
        return failedTo("the folder cannot be written", error);
    return {};
}

//  The path is resolved anew each time: a link may be pointed elsewhere while the service runs.
Outcome HostsBackend::update(const DnsRequest& request) {
    FilePlace place;
    if (const std::string reason = resolveFile(path_, place); !reason.empty())
        return backendFailed("the file cannot be reached: " + reason);
    FileLock lock;
    if (const int error = lock.acquire(place.lock(), lockLimit); error != 0)
        return failedTo("the lock file cannot be locked", error);
    int error = EAGAIN;
    for (int attempt = 0; error == EAGAIN && attempt < maxAttempts; ++attempt) {
        FileText before;
        if (const int unread = readFile(place, before); unread != 0)
            return failedTo("the file cannot be read", unread);
        const std::string after = withHostLines(before.bytes, request.name, request.addresses);
        if (after == before.bytes)
            return flushed_ ? Outcome{} : flush(place);
        error = replaceFile(place, before, after);
    }
    if (error == EFBIG)
        return serverRefused("the file would be larger than 16 MiB; it stays as it is");
    return error == 0 ? flush(place) : failedTo("the file cannot be replaced", error);
}

//  After a failure the retry finds the new text in the file. Only flushed_ says that it is not safe yet; a new process
//  does not know, and flushes once.
Outcome HostsBackend::flush(const FilePlace& place) {
    const int error = flushDirectory(place);
    flushed_ = error == 0;
    return flushed_ ? Outcome{} : failedTo("the folder cannot be flushed", error);
}

Outcome HostsBackend::message(std::string_view text, std::string& reply) {
    DnsRequest request;
    const std::string refused = parseDnsRequest(text, request);
    if (!refused.empty()) {
        reply = dnsReply(request.seqno, errorBadRequest, refused);
        return {errorBadRequest, refused};
    }
    Outcome outcome = update(request);
    reply = dnsReply(request.seqno, outcome.code, outcome.code == errorNone ? "ok" : outcome.reason);
    return outcome;
}

std::string HostsBackend::refusal(std::string_view text, int code) {
    DnsRequest request;
    parseDnsRequest(text, request);
    return dnsReply(request.seqno, code, "the server is not connected");
}

}  // namespace

int makeHostsBackend(const Url& url, const Credentials&, std::unique_ptr<Backend>& backend, std::string& reason) {
    if (!isFileUrl(url, reason))
        return errorBadUrl;
    backend = std::make_unique<HostsBackend>(url.path);
    return errorNone;
}

}  // namespace rdbopen
