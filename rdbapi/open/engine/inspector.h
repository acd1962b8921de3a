//  Lists what a server holds of one host, and removes it. Tools for administrators use this interface; the worker does
//  not.
//
//      openToRead() --> held() --> the tool shows the records --> remove() --> Backend::close()
//                   --> examine()
//
//  Only the operation `remove` changes records. It deletes the records that the operation `held` has returned as ours.
//  In the back ends redis and sqlite, it deletes nothing if the value has changed since. In the back end dns, it
//  deletes nothing from a zone in which the records have changed since. The back end hosts deletes all lines of the
//  service for the host, also lines that were added since.
//
//  Threads: one thread at a time. The back end must not be open (Backend::open) meanwhile.
#ifndef RDBAPI_OPEN_ENGINE_INSPECTOR_H
#define RDBAPI_OPEN_ENGINE_INSPECTOR_H

#include "engine/status.h"
#include "engine/waiter.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rdbopen {

//  The host as the service names it in its requests.
struct HostNames {
    std::string name;                       // of the tag, or "name" of the update request
    std::vector<std::uint16_t> httpsPorts;  // never 0, without duplicates
};

struct HeldRecord {
    std::string text;     // one line, "host1.example.org AAAA 2001:db8::1"; bytes from the server may be unprintable
    std::string remains;  // why `remove` keeps the record; empty for a record of the service, which it deletes

    bool ours() const noexcept { return remains.empty(); }
};

struct Holdings {
    std::string name;  // of the host in DNS, without the final dot; empty for an rdb server and for log:
    std::vector<HeldRecord> records;
    std::optional<std::vector<std::string>> addresses;  // in the records; no vector if the server cannot be asked
    std::vector<std::string> remarks;                   // sentences on what else may exist, or why nothing is listed
    bool incomplete = false;  // there may be records of the service that `remove` does not delete
};

//  One question to a server, and its answer.
struct Examination {
    std::string what;  // the action of the service, such as "update the records of host1"; not a sentence
    Status status;     // ok: the server allows it, as far as this can be tested without a change
};

//  One request of a removal, which a server normally carries out as a whole or not at all.
struct RemovalStep {
    std::vector<std::string> texts;  // of the records
    Status status;                   // ok: the records were deleted; errorBackendFailed: they may have been deleted
};

class Inspector {
public:
    //  Prepares the operations below, usually by a connection to the server, and changes nothing. waiter outlives the
    //  next close of the back end.
    virtual Status openToRead(const Waiter& waiter) = 0;

    //  Returns what the server holds of host. Requires: openToRead has succeeded.
    virtual Result<Holdings> held(const HostNames& host) = 0;

    //  Returns those of the host's IPv6 addresses that the service publishes at this server.
    virtual Result<std::vector<std::string>> published(const std::vector<std::string>& addresses) { return addresses; }

    //  Tests, without a change, whether the server allows what the service does for host. Skips a test that openToRead
    //  has already made. Adds the answers to results. Fails if a test could not be made. Requires: openToRead has
    //  succeeded.
    virtual Status examine(const HostNames& host, std::vector<Examination>& results) = 0;

    //  Deletes the records for which ours() is true in the last result of `held`, and adds one element to steps for
    //  each request. Each of these records is in one element, unless memory is exhausted. If a request fails, returns a
    //  failure. Requires: `held` has succeeded.
    virtual Status remove(std::vector<RemovalStep>& steps) = 0;

protected:
    ~Inspector() = default;
};

//  Returns the texts of the records that Inspector::remove deletes.
inline std::vector<std::string> textsOfOurs(const Holdings& holdings) {
    std::vector<std::string> texts;
    for (const HeldRecord& record : holdings.records)
        if (record.ours())
            texts.push_back(record.text);
    return texts;
}

//  Returns the addresses in the value of a tag, as the service writes it: separated by commas, "null" for none.
inline std::vector<std::string> addressesIn(const std::string& value) {
    std::vector<std::string> addresses;
    for (std::size_t start = 0; value != "null" && start < value.size();) {
        const std::size_t end = std::min(value.find(',', start), value.size());
        addresses.push_back(value.substr(start, end - start));
        start = end + 1;
    }
    return addresses;
}

//  Serves a back end that stores nothing, so nothing can be listed or removed. remark is the reason.
class RemarkInspector : public Inspector {
public:
    explicit RemarkInspector(const char* remark) noexcept : remark_(remark) {}

    Status openToRead(const Waiter&) override { return {}; }
    Result<Holdings> held(const HostNames&) override { return Holdings{{}, {}, {}, {remark_}}; }
    Status examine(const HostNames&, std::vector<Examination>&) override { return {}; }
    Status remove(std::vector<RemovalStep>&) override { return {}; }

private:
    const char* remark_;
};

}  // namespace rdbopen

#endif
