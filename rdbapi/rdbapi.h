//  The interface of the client library: the nine functions of ./librdbapix64.so, their callback types, the event codes
//  and two records of fixed layout.
//
//  One handle is one asynchronous connection to one server. The library reconnects, limits waiting times and creates
//  its own threads; the caller reacts to events.
//
//      rdb_create -> rdb_setmessagenotify -> rdb_connectex --(60001)--> calls --(60003)--> ... --> rdb_disconnect
//                                                             ^            |                       rdb_destory
//                                                             +------------+  the library reconnects
//
//  Guarantees: after event 60001, calls can succeed. A call waits for the server only for a limited time.
//  rdb_disconnect and rdb_destory may be called in a signal handler, even one that interrupts another call of the
//  library.
//
//  Threads: the library may call callbacks on its own threads, in parallel with the caller's calls; it may also deliver
//  an event inside a call. When rdb_disconnect returns, a callback whose delivery has already started may still begin
//  or run. No other callback is delivered after that. The object that the argument user points to must outlive these
//  callbacks.
//
//  Ownership: the library copies the texts and records passed to it. The caller may free its data when the call
//  returns.
//
//  Both records have a fixed binary layout: little-endian, without other padding than the reserved members. Reserved
//  bytes are zero. The assertions below check sizes and offsets.
#ifndef RDBAPI_RDBAPI_H
#define RDBAPI_RDBAPI_H

#include <cstddef>
#include <cstdint>

//  Event codes passed to RdbMessageNotify. Callers ignore any other code.
constexpr std::int32_t RDB_EVENT_CONNECTED = 60001;     // the connection is established
constexpr std::int32_t RDB_EVENT_DISCONNECTED = 60003;  // the connection is lost

constexpr std::uint8_t RDB_VALUE_TYPE_TEXT = 6;   // type of a text value, in RdbTag and RdbSnapshot
constexpr std::uint8_t RDB_TAG_CLASS_USABLE = 2;  // in RdbTag::tagclass: values can be put only for tags of this class
constexpr int RDB_TAGINPORT_MODE = 16;            // second argument of rdb_taginport

//  A tag definition.
//
//      0         4 5        12              92           189 190 191 192            256
//      | zero    |t| zero   | name[80]      | zero       |c  |0  |f  | zero         |
//                 value type                              tag class  import flag
struct RdbTag {
    std::uint8_t reserved0[4];
    std::uint8_t valuetype;  // RDB_VALUE_TYPE_TEXT when importing, 0 when querying
    std::uint8_t reserved5[7];
    char name[80];  // NUL-terminated, at most 79 characters
    std::uint8_t reserved92[97];
    std::uint8_t tagclass;  // RDB_TAG_CLASS_USABLE when importing; rdb_tagget stores the server's value here
    std::uint8_t reserved190;
    std::uint8_t importflag;  // 1 when importing, 0 when querying
    std::uint8_t reserved192[64];
};

static_assert(sizeof(RdbTag) == 256);
static_assert(offsetof(RdbTag, valuetype) == 4);
static_assert(offsetof(RdbTag, reserved5) == 5);
static_assert(offsetof(RdbTag, name) == 12);
static_assert(offsetof(RdbTag, reserved92) == 92);
static_assert(offsetof(RdbTag, tagclass) == 189);
static_assert(offsetof(RdbTag, reserved190) == 190);
static_assert(offsetof(RdbTag, importflag) == 191);
static_assert(offsetof(RdbTag, reserved192) == 192);

//  One value of one object at one time.
//
//      0               80        88      96 97    102    104                        1104
//      | name[80]      | time    | zero  |t | zero | len | value[1000]              |
struct RdbSnapshot {
    char name[80];      // NUL-terminated, at most 79 characters
    std::int64_t time;  // 0 when putting: the value gets the time at which it is stored
    std::uint8_t reserved88[8];
    std::uint8_t valuetype;  // RDB_VALUE_TYPE_TEXT
    std::uint8_t reserved97[5];
    std::uint16_t valuelen;  // bytes of value, terminator not counted; 0..999
    char value[1000];        // NUL-terminated, at most 999 characters
};

static_assert(sizeof(RdbSnapshot) == 1104);
static_assert(offsetof(RdbSnapshot, time) == 80);
static_assert(offsetof(RdbSnapshot, reserved88) == 88);
static_assert(offsetof(RdbSnapshot, valuetype) == 96);
static_assert(offsetof(RdbSnapshot, reserved97) == 97);
static_assert(offsetof(RdbSnapshot, valuelen) == 102);
static_assert(offsetof(RdbSnapshot, value) == 104);

extern "C" {

//  Receives a connection event. Callers ignore value, which is internal to the library. user is the pointer passed to
//  rdb_setmessagenotify.
typedef void (*RdbMessageNotify)(std::int32_t event, std::int64_t value, void* user);

//  Receives the reply to one rdb_callmsg. text has length bytes, need not be NUL-terminated and is valid during the
//  call only; user is the pointer passed to rdb_callmsg.
typedef void (*RdbReply)(const char* text, std::int32_t length, void* user);

//  Creates an unconnected handle. Returns the handle (0 or greater), or a negative value if none can be created.
int rdb_create(void);

//  Sets the receiver of the handle's connection events. Call it before rdb_connectex. Returns 0, or an error code.
int rdb_setmessagenotify(int handle, RdbMessageNotify callback, void* user);

//  Starts the asynchronous connection; event 60001 reports when it is established. reserved must be 0. Returns 0 when
//  the connection was started, else an error code (for example a bad handle, a malformed url, an unknown scheme, no
//  thread).
int rdb_connectex(int handle, const char* url, const char* user, const char* password, int reserved);

//  Passes a request text of length bytes to the library. Returns 0 when the request was accepted; then callback
//  receives the reply, unless the handle is closed before. Any other result is an error code, and callback is not
//  called.
int rdb_callmsg(int handle, const char* text, std::int32_t length, RdbReply callback, void* user);

//  Looks up the tag with the name tag->name and stores its definition in *tag. Returns 0, or an error code, for example
//  if the tag does not exist.
int rdb_tagget(int handle, RdbTag* tag);

//  Creates or replaces the tag that *tag defines. mode must be RDB_TAGINPORT_MODE. *result receives a number that is
//  internal to the library. Returns 0, or an error code.
int rdb_taginport(int handle, int mode, RdbTag* tag, std::int32_t* result);

//  Puts the current values of count objects. Returns 0, or an error code.
int rdb_objputsnapshot(int handle, const RdbSnapshot* records, int count);

//  Ends the connection without an event. Async-signal-safe. Returns 0, or an error code.
int rdb_disconnect(int handle);

//  Releases the handle. Async-signal-safe. Returns 0, or an error code. The spelling is deliberate: it is the exported
//  name.
int rdb_destory(int handle);
}

#endif
