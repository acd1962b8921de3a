//  Error codes of the open client library: what its nine functions return beside 0, and the "code" of a reply text.
//
//  They start above 1000, so that they are told apart from errno values and SQLite's result codes in a log.
#ifndef RDBAPI_OPEN_ENGINE_ERRORS_H
#define RDBAPI_OPEN_ENGINE_ERRORS_H

namespace rdbopen {

enum Error : int {
    errorNone = 0,
    errorBadHandle = 1001,          // never returned by rdb_create, or already released by rdb_destory
    errorBadArgument = 1002,        // null, out of range, or a text without its terminator
    errorBadUrl = 1003,             // malformed; the reason is in syslog
    errorUnknownScheme = 1004,      // no back end serves the url's scheme
    errorNotConnected = 1005,       // before the event 60001, or after 60003
    errorAlreadyConnecting = 1006,  // rdb_connectex or rdb_setmessagenotify after a successful rdb_connectex
    errorClosed = 1007,             // rdb_disconnect was called for the handle
    errorTimedOut = 1008,           // the call's limit of 3 s ran out; the request may still be carried out
    errorBusy = 1009,               // too many requests are waiting
    errorNotSupported = 1010,       // the back end has no such operation
    errorNoSuchTag = 1011,          // rdb_tagget, rdb_objputsnapshot
    errorTagNotUsable = 1012,       // rdb_objputsnapshot on a tag whose class is not RDB_TAG_CLASS_USABLE
    errorBadRequest = 1013,     // reply only: can never succeed, such as one without a name; the reason is in syslog
    errorBackendFailed = 1014,  // the back end failed and is being opened again; the reason is in syslog
    errorNoResources = 1015,    // no memory or no thread
    errorInCallback = 1016,     // a waiting call from inside a callback of the same handle, which it would block
    errorServerRefused = 1017,  // the server answered and did not do it; it is asked again; the reason is in syslog
    errorNotHeld = 1018,        // never returned to callers: the server has lost what it once took
    errorPreempted = 1019,      // never returned to callers: a check was cut off, because a call waits
    errorNotInstalled = 1020,   // the back end of the url's scheme is not beside the library; the reason is in syslog
    errorNotLoadable = 1021,    // it is there and cannot be loaded or is of another version; the reason is in syslog
    errorFileChanged = 1022,    // never returned to callers: a file is not the one that was read any more
    errorTooLarge = 1023,       // never returned to callers: more bytes than are read or written at all
};

}  // namespace rdbopen

#endif
