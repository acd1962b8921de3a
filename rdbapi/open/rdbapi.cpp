//  The nine exported functions. rdb_create, rdb_disconnect and rdb_destory use the handle table; the others check and
//  copy their arguments and pass them to the handle's worker. None of the nine throws an exception.
#pragma GCC visibility push(default)
#include "rdbapi.h"
#pragma GCC visibility pop

#include "backends.h"
#include "engine/handle_table.h"
#include "engine/report.h"
#include "engine/state_board.h"
#include "engine/worker.h"

#include <cstdlib>
#include <cstring>

using namespace rdbopen;

namespace {

constexpr std::int32_t maxMessageLength = 1 << 20;  // bytes
constexpr int maxRecords = 1000;

//  Calls body with the handle's worker, which is not deleted before body returns.
template <class Body>
int withWorker(int handle, Body body) noexcept {
    try {
        const PinnedHandle pin(handle);
        return pin.worker() == nullptr ? static_cast<int>(errorBadHandle) : body(*pin.worker());
    } catch (...) {
        return errorNoResources;
    }
}

bool isName(const char (&name)[80]) {
    return name[0] != '\0' && std::memchr(name, '\0', sizeof name) != nullptr;
}

bool isRecord(const RdbSnapshot& record) {
    return isName(record.name) && record.valuelen < sizeof record.value;
}

}  // namespace

int rdb_create(void) {
    try {
        return createHandle();
    } catch (...) {
        return -1;
    }
}

int rdb_setmessagenotify(int handle, RdbMessageNotify callback, void* user) {
    if (callback == nullptr)
        return errorBadArgument;
    return withWorker(handle, [&](Worker& worker) { return worker.setNotify(callback, user); });
}

int rdb_connectex(int handle, const char* url, const char* user, const char* password, int reserved) {
    if (url == nullptr || user == nullptr || password == nullptr || reserved != 0)
        return errorBadArgument;
    return withWorker(handle, [&](Worker& worker) {
        stateFile.chooseFolder(std::getenv("RUNTIME_DIRECTORY"));
        BackendResult backend = makeBackend(url, {user, password});
        if (backend.ok())
            return worker.start(std::move(*backend));
        reportFailure("rdb_connectex", backend.status().reason);
        return backend.status().code;
    });
}

int rdb_callmsg(int handle, const char* text, std::int32_t length, RdbReply callback, void* user) {
    if (text == nullptr || length < 1 || length > maxMessageLength || callback == nullptr)
        return errorBadArgument;
    return withWorker(handle, [&](Worker& worker) {
        const std::string_view request(text, static_cast<std::size_t>(length));
        return worker.post(std::make_shared<UpdateCall>(request, callback, user));
    });
}

int rdb_tagget(int handle, RdbTag* tag) {
    if (tag == nullptr || !isName(tag->name))
        return errorBadArgument;
    return withWorker(handle, [&](Worker& worker) {
        const auto call = std::make_shared<TagGetCall>(*tag);
        const int code = worker.execute(call);
        if (code == errorNone)
            *tag = call->tag;
        return code;
    });
}

int rdb_taginport(int handle, int mode, RdbTag* tag, std::int32_t* result) {
    if (mode != RDB_TAGINPORT_MODE || tag == nullptr || !isName(tag->name) || result == nullptr)
        return errorBadArgument;
    return withWorker(handle, [&](Worker& worker) {
        const int code = worker.execute(std::make_shared<TagImportCall>(*tag));
        *result = code;
        return code;
    });
}

int rdb_objputsnapshot(int handle, const RdbSnapshot* records, int count) {
    if (records == nullptr || count < 1 || count > maxRecords)
        return errorBadArgument;
    for (int i = 0; i < count; ++i)
        if (!isRecord(records[i]))
            return errorBadArgument;
    return withWorker(handle,
                      [&](Worker& worker) { return worker.execute(std::make_shared<PutCall>(records, count)); });
}

int rdb_disconnect(int handle) {
    return closeHandle(handle);
}

int rdb_destory(int handle) {
    return releaseHandle(handle);
}
