//  Error codes of the open client library: results of its functions, except rdb_create, and the "code" of a reply text.
//
//  The codes start above 1000, so that they differ from errno values and SQLite's result codes in a log.
#ifndef RDBAPI_OPEN_ENGINE_ERRORS_H
#define RDBAPI_OPEN_ENGINE_ERRORS_H

namespace rdbopen {

enum Error : int {
    errorNone = 0,
    errorBadHandle = 1001,          // not returned by rdb_create, already released, or 65535 calls use the handle
    errorBadArgument = 1002,        // null, out of range, or a name that is empty or not NUL-terminated
    errorBadUrl = 1003,             // the url is malformed, or the user does not fit it; the reason is in syslog
    errorUnknownScheme = 1004,      // no back end has the url's scheme
    errorNotConnected = 1005,       // not connected, or the connection was lost before the request was served
    errorAlreadyConnecting = 1006,  // rdb_connectex or rdb_setmessagenotify after a successful rdb_connectex
    errorClosed = 1007,             // rdb_disconnect or rdb_destory was called for the handle
    errorTimedOut = 1008,           // the call's limit of 3 s expired; the request may still be carried out
    errorBusy = 1009,               // too many requests are waiting
    errorNotSupported = 1010,       // the back end does not support the operation
    errorNoSuchTag = 1011,          // the tag of an rdb_tagget or rdb_objputsnapshot does not exist
    errorTagNotUsable = 1012,       // rdb_objputsnapshot on a tag whose class is not RDB_TAG_CLASS_USABLE
    errorBadRequest = 1013,         // the request can never succeed; the reason is in syslog
    errorBackendFailed = 1014,      // the back end failed (the reason is in syslog), or the handle was closed
    errorNoResources = 1015,        // no memory or no thread, or OpenSSL or libcurl cannot be initialised
    errorInCallback = 1016,         // a call that waits, made by a callback on the worker's thread: it would time out
    errorServerRefused = 1017,      // the server refused the request, which is retried; the reason is in syslog
    errorNotHeld = 1018,            // never returned to callers: the server no longer has data that it had accepted
    errorPreempted = 1019,          // never returned to callers: a check was interrupted, because a call waits
    errorNotInstalled = 1020,       // the scheme's module is missing; the reason is in syslog
    errorNotLoadable = 1021,        // the module cannot be loaded or used, or its folder is unknown; see syslog
    errorFileChanged = 1022,        // never returned to callers: a file was changed or replaced after it was read
    errorTooLarge = 1023,           // never returned to callers: a file is larger than the limit for reading or writing
};

}  // namespace rdbopen

#endif
