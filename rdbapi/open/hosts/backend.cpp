#include "hosts/backend.h"

#include "files/lock.h"
#include "files/replace.h"
#include "hosts/hosts_file.h"
#include "net/host_name.h"
#include "net/url.h"
#include "request/dns_request.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace rdbopen {

namespace {

constexpr std::chrono::milliseconds lockLimit{2000};

//  Maximum number of attempts of an update. An attempt is repeated if another program has changed the file during it.
constexpr int maxAttempts = 5;

//  Returns errorBackendFailed for each failure of readFile, also for errorTooLarge.
Status unreadable(const Status& failure) {
    return backendFailed("the file cannot be read: " + failure.reason);
}

class HostsBackend : public Backend, public DnsUpdateBackend, public Inspector {
public:
    HostsBackend(const std::string& path, AddressFilter filter) : path_(path), filter_(std::move(filter)) {}

    std::string label() const override { return "hosts://" + path_; }
    UpdateBackend* updates() noexcept override { return this; }
    Inspector* inspector() noexcept override { return this; }

    Status open(const Waiter& waiter) override;
    void close() noexcept override {}

    Status openToRead(const Waiter&) override { return {}; }
    Result<Holdings> held(const HostNames& host) override;
    Result<std::vector<std::string>> published(const std::vector<std::string>& addresses) override {
        return filter_.apply(addresses);
    }
    Status examine(const HostNames& host, std::vector<Examination>& results) override;
    Status remove(std::vector<RemovalStep>& steps) override;

private:
    Status update(const DnsRequest& request) override;
    Status flush(const FilePlace& place);

    std::string path_;
    const AddressFilter filter_;
    bool flushed_ = false;            // the directory was flushed after the last rename by this back end
    std::string shownName_;           // host name of the last call of held that succeeded
    std::vector<std::string> shown_;  // own lines in the result of that call
};

Status HostsBackend::open(const Waiter&) {
    FilePlace place;
    if (Status failed = resolveFile(path_, place); !failed.ok())
        return failedTo("the file cannot be reached", std::move(failed));
    FileLock lock;
    if (Status failed = lock.acquire(place.lock(), lockLimit); !failed.ok())
        return failedTo("the lock file cannot be locked", std::move(failed));
    if (const Result<FileText> text = readFile(place); !text.ok())
        return unreadable(text.status());
    if (Status failed = testWritable(place); !failed.ok())
        return failedTo("the folder cannot be written", std::move(failed));
    return {};
}

//  Resolves the path each time, because a symbolic link may change while the service runs.
Status HostsBackend::update(const DnsRequest& request) {
    const Result<std::vector<std::string>> published = filter_.apply(request.addresses);
    if (!published.ok())
        return published.status();
    FilePlace place;
    if (Status failed = resolveFile(path_, place); !failed.ok())
        return failedTo("the file cannot be reached", std::move(failed));
    FileLock lock;
    if (Status failed = lock.acquire(place.lock(), lockLimit); !failed.ok())
        return failedTo("the lock file cannot be locked", std::move(failed));
    Status status{errorFileChanged, {}};
    for (int attempt = 0; status.code == errorFileChanged && attempt < maxAttempts; ++attempt) {
        const Result<FileText> before = readFile(place);
        if (!before.ok())
            return unreadable(before.status());
        const std::string after = withHostLines(before->bytes, request.name, *published);
        if (after == before->bytes)
            return flushed_ ? Status{} : flush(place);
        status = replaceFile(place, *before, after);
    }
    //  After errorServerRefused, the back end stays open. Opening it again would not help before somebody has shortened
    //  the file.
    if (status.code == errorTooLarge)
        return serverRefused("the file would be larger than 16 MiB; it stays as it is");
    if (status.ok())
        return flush(place);
    return backendFailed("the file cannot be replaced: " + status.reason);
}

//  If the flush fails, the retry finds the new text in the file, and only flushed_ shows that the text may not be on
//  the disk. flushed_ is false in a new process, which therefore flushes once.
Status HostsBackend::flush(const FilePlace& place) {
    Status status = flushDirectory(place);
    flushed_ = status.ok();
    return flushed_ ? Status{} : failedTo("the folder cannot be flushed", std::move(status));
}

//  Needs no lock, because this library replaces the file atomically by a rename.
Result<Holdings> HostsBackend::held(const HostNames& host) {
    if (!isDnsName(host.name))
        return Status{errorBadRequest, "the name " + host.name + " is not a host name"};
    FilePlace place;
    if (Status failed = resolveFile(path_, place); !failed.ok())
        return failedTo("the file cannot be reached", std::move(failed));
    const Result<FileText> text = readFile(place);
    if (!text.ok())
        return unreadable(text.status());
    HostLines lines = hostLines(text->bytes, host.name);
    Holdings holdings;
    holdings.name = host.name;
    holdings.addresses.emplace();
    for (const std::string& line : lines.own) {
        holdings.records.push_back({line, {}});
        holdings.addresses->push_back(line.substr(0, line.find(' ')));
    }
    for (const std::string& line : lines.others)
        holdings.records.push_back({line, "the line is not of the service"});
    shownName_ = host.name;
    shown_ = std::move(lines.own);
    return holdings;
}

//  Tests the permissions of the calling user, without the temporary file of testWritable.
Status HostsBackend::examine(const HostNames&, std::vector<Examination>& results) {
    FilePlace place;
    Status status = resolveFile(path_, place);
    if (status.ok() && access(place.directory.c_str(), W_OK | X_OK) != 0)
        status = systemFailure(errno);
    results.push_back({"write in the folder " + place.directory + " (as this user)", std::move(status)});
    return {};
}

//  Does nothing if held has found no own line. Otherwise removes all own lines of the host, also a line that was added
//  after the call of held: each update of the service replaces all own lines of the host, too.
Status HostsBackend::remove(std::vector<RemovalStep>& steps) {
    if (shown_.empty())
        return {};
    DnsRequest none;
    none.name = shownName_;
    steps.push_back({shown_, update(none)});
    return steps.back().status;
}

}  // namespace

//  The reasons do not quote the url, because a url may contain a misplaced secret.
Result<AddressFilter> parseHostsOptions(const Url& url) {
    AddressFilter filter;
    std::vector<std::string> seen;
    for (const auto& [name, value] : url.options) {
        if (name != "only" && name != "skip")
            return malformedUrl("it has an option other than only and skip (write ? as %3F in a path)");
        if (std::find(seen.begin(), seen.end(), name) != seen.end())
            return malformedUrl("the option " + name + " is given twice");
        seen.push_back(name);
        if (Status failed = name == "only" ? filter.takeOnly(value) : filter.takeSkip(value); !failed.ok())
            return failed;
    }
    return filter;
}

BackendResult makeHostsBackend(const Url& url, const Credentials&) {
    Result<AddressFilter> filter = parseHostsOptions(url);
    if (!filter.ok())
        return filter.status();
    const Result<std::string> path = filePathOf(url);
    if (!path.ok())
        return path.status();
    return BackendResult(std::make_unique<HostsBackend>(*path, std::move(*filter)));
}

}  // namespace rdbopen
