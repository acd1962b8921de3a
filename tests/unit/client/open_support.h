//  Shared by the tests of the open client library: a temporary folder, records, and waiting for other threads. A wait
//  ends as soon as its condition is true. Its limit only matters for a test that would otherwise hang.
#ifndef TESTS_UNIT_OPEN_SUPPORT_H
#define TESTS_UNIT_OPEN_SUPPORT_H

#include "backends.h"
#include "engine/clock.h"
#include "rdbapi.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sstream>
#include <string>
#include <vector>

#include <stdlib.h>
#include <time.h>

namespace opentest {

inline constexpr std::chrono::seconds hangLimit{60};

class Folder {
public:
    Folder() {
        char name[] = "/tmp/addrpubd-open-XXXXXX";
        path_ = std::filesystem::canonical(mkdtemp(name)).string();
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

inline std::string readText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

//  Returns the C library's text for an error, in the language of the locale.
inline std::string errorText(int error) {
    return std::strerror(error);
}

//  Calls `condition` repeatedly until it returns true. Returns false at the time limit.
template <class Condition>
bool eventually(Condition condition) {
    const timespec pause{0, 1000000};
    for (const auto until = std::chrono::steady_clock::now() + hangLimit; !condition(); nanosleep(&pause, nullptr))
        if (std::chrono::steady_clock::now() > until)
            return false;
    return true;
}

//  A queue of items that callbacks pass to the test's thread.
template <class T>
class Inbox {
public:
    void put(T item) {
        const std::lock_guard lock(mutex_);
        items_.push_back(std::move(item));
    }
    //  Returns the next item, or T() at the time limit.
    T take() {
        eventually([this] { return count() > 0; });
        const std::lock_guard lock(mutex_);
        if (items_.empty())
            return T();
        T item = std::move(items_.front());
        items_.pop_front();
        return item;
    }
    std::size_t count() {
        const std::lock_guard lock(mutex_);
        return items_.size();
    }

private:
    std::mutex mutex_;
    std::deque<T> items_;
};

using Events = Inbox<std::int32_t>;
using Replies = Inbox<std::string>;

inline void onEvent(std::int32_t event, std::int64_t, void* events) {
    static_cast<Events*>(events)->put(event);
}

inline void onReply(const char* text, std::int32_t length, void* replies) {
    static_cast<Replies*>(replies)->put(std::string(text, static_cast<std::size_t>(length)));
}

inline RdbTag tagNamed(const std::string& name) {
    RdbTag tag{};
    name.copy(tag.name, sizeof tag.name - 1);
    return tag;
}

inline RdbTag usableTag(const std::string& name) {
    RdbTag tag = tagNamed(name);
    tag.tagclass = RDB_TAG_CLASS_USABLE;
    tag.valuetype = RDB_VALUE_TYPE_TEXT;
    tag.importflag = 1;
    return tag;
}

inline RdbSnapshot recordOf(const std::string& name, const std::string& value) {
    RdbSnapshot record{};
    name.copy(record.name, sizeof record.name - 1);
    record.valuetype = RDB_VALUE_TYPE_TEXT;
    record.valuelen = static_cast<std::uint16_t>(value.copy(record.value, sizeof record.value - 1));
    return record;
}

//  Waits until the workers of all released handles have ended, so that no more callbacks run and every slot of the
//  table is free. Returns false at the limit, or if a handle is still in use.
inline bool workersEnded() {
    bool allFree = true;
    std::vector<int> handles;
    for (int i = 0; i < 16; ++i) {
        int handle = -1;
        const auto until = std::chrono::steady_clock::now() + hangLimit;
        while ((handle = rdb_create()) < 0 && std::chrono::steady_clock::now() < until)
            ;
        allFree = allFree && handle >= 0;
        handles.push_back(handle);
    }
    for (const int handle : handles)
        rdb_destory(handle);
    return allFree;
}

//  A waiter of a handle that is never closed.
class PlainWaiter : public rdbopen::Waiter {
public:
    Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override {
        pollfd waited{descriptor, events, 0};
        const auto left = until - rdbopen::monotonicNow();
        const int ready = poll(&waited, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
        if (ready < 0)
            return Result::failed;
        return ready == 0 ? Result::timedOut : Result::ready;
    }
};
inline constexpr PlainWaiter plainWaiter;

//  Creates the back end for `url`. Returns null on failure.
inline std::unique_ptr<rdbopen::Backend> backendFor(const std::string& url,
                                                    const rdbopen::Credentials& credentials = {}) {
    rdbopen::BackendResult backend = rdbopen::makeBackend(url, credentials);
    return backend.ok() ? std::move(*backend) : nullptr;
}

inline std::size_t entriesOf(const char* folder) {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder))
        ++count;
    return count;
}

}  // namespace opentest

#endif
