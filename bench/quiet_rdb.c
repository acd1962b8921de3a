/*  A client library without dependencies, to measure the executable alone. It creates up to 8 handles. Each connection
 *  is established at once, each call succeeds, nothing is stored, and no reply is sent. */
#include <stdint.h>

#define EXPORTED __attribute__((visibility("default")))

typedef void (*notify)(int32_t event, int64_t value, void* user);

enum { connected = 60001, handles = 8 };

static struct {
    notify callback;
    void* user;
} receivers[handles];
static int created;

EXPORTED int rdb_create(void) {
    return created < handles ? created++ : -1;
}

EXPORTED int rdb_setmessagenotify(int handle, notify callback, void* user) {
    receivers[handle].callback = callback;
    receivers[handle].user = user;
    return 0;
}

EXPORTED int rdb_connectex(int handle, const char* url, const char* user, const char* password, int reserved) {
    (void)url, (void)user, (void)password, (void)reserved;
    receivers[handle].callback(connected, 0, receivers[handle].user);
    return 0;
}

EXPORTED int rdb_callmsg(int handle, const char* text, int32_t length, void* callback, void* user) {
    (void)handle, (void)text, (void)length, (void)callback, (void)user;
    return 0;
}

/*  Writes tag class 2 to its place in the record, which means that the tag exists and may be used. */
EXPORTED int rdb_tagget(int handle, unsigned char* tag) {
    (void)handle;
    tag[189] = 2;
    return 0;
}

EXPORTED int rdb_taginport(int handle, int mode, void* tag, int32_t* result) {
    (void)handle, (void)mode, (void)tag, (void)result;
    return 0;
}

EXPORTED int rdb_objputsnapshot(int handle, const void* records, int count) {
    (void)handle, (void)records, (void)count;
    return 0;
}

EXPORTED int rdb_disconnect(int handle) {
    (void)handle;
    return 0;
}

EXPORTED int rdb_destory(int handle) {
    (void)handle;
    return 0;
}
