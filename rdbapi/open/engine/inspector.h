//  What a server holds of one host, and its removal. Tools for administrators use this interface; the worker does not.
//
//      openToRead() --> held() --> the tool shows the records --> remove() --> Backend::close()
//
//  No operation but remove changes anything at the server. remove deletes only records that held has returned as ours,
//  and only while the server still has them as returned.
//
//  Threads: one thread at a time. The back end must not be open (Backend::open) meanwhile.
#ifndef RDBAPI_OPEN_ENGINE_INSPECTOR_H
#define RDBAPI_OPEN_ENGINE_INSPECTOR_H

#include "engine/status.h"
#include "engine/waiter.h"

#include <cstdint>
#include <string>
#include <vector>

namespace rdbopen {

//  The host as the service names it in its requests.
struct HostNames {
    std::string name;                       // of the tag, or "name" of the update request
    std::vector<std::uint16_t> httpsPorts;  // never 0, without duplicates
};

struct HeldRecord {
    std::string text;     // one line, "host1.example.org AAAA 2001:db8::1"; bytes from the server may not be printable
    std::string remains;  // why remove leaves it; empty for a record of the service, which remove deletes

    bool ours() const noexcept { return remains.empty(); }
};

struct Holdings {
    std::vector<HeldRecord> records;
    std::vector<std::string> remarks;  // what else there may be, as sentences without a full stop
};

//  One request of a removal, which the server carries out as a whole or not at all.
struct RemovalStep {
    std::vector<std::string> texts;  // of the records
    Status status;                   // ok: they were deleted; errorBackendFailed: it is not known
};

class Inspector {
public:
    //  Connects to the server like Backend::open, but changes nothing. waiter outlives the next close of the back end.
    virtual Status openToRead(const Waiter& waiter) = 0;

    //  Returns what the server holds of host. Requires: openToRead has succeeded.
    virtual Result<Holdings> held(const HostNames& host) = 0;

    //  Deletes the records of the last result of held that are ours, and adds one element to steps for each request.
    //  Every record that is ours is in one of them, unless memory is exhausted. Returns the first failure.
    //  Requires: held has succeeded.
    virtual Status remove(std::vector<RemovalStep>& steps) = 0;

protected:
    ~Inspector() = default;
};

//  Returns the texts of the records that remove deletes.
inline std::vector<std::string> textsOfOurs(const Holdings& holdings) {
    std::vector<std::string> texts;
    for (const HeldRecord& record : holdings.records)
        if (record.ours())
            texts.push_back(record.text);
    return texts;
}

//  Serves a back end whose server keeps nothing that can be listed or removed. remark says why.
class RemarkInspector : public Inspector {
public:
    explicit RemarkInspector(const char* remark) noexcept : remark_(remark) {}

    Status openToRead(const Waiter&) override { return {}; }
    Result<Holdings> held(const HostNames&) override { return Holdings{{}, {remark_}}; }
    Status remove(std::vector<RemovalStep>&) override { return {}; }

private:
    const char* remark_;
};

}  // namespace rdbopen

#endif
