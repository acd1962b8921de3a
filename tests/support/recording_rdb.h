//  A stand-in for the client library that does what a test tells it and remembers what the service did to it.
//
//  The nine functions of rdbapi.h are defined in recording_rdb.cpp. Each call first takes its script (result, tag
//  class, synchronous event), then is remembered whole: its place in the order of all calls, its arguments and the raw
//  bytes of its records. Without a script every call succeeds: handles are 0, 1, 2, ..., rdb_tagget stores class 2, and
//  all else returns 0.
//
//  Linked into a unit test (target recording_rdb) the functions below are called directly. In the shared library of the
//  system tests, recording_control.cpp calls them on behalf of a test in another process.
//
//  Threads: every function here and all nine of rdbapi.h may be called from any thread, and rdb_disconnect and
//  rdb_destory also from a signal handler that interrupted any of them. Callbacks run with no lock held. Nothing is
//  ever written to standard output or standard error.
#ifndef TESTS_SUPPORT_RECORDING_RDB_H
#define TESTS_SUPPORT_RECORDING_RDB_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "rdbapi.h"

namespace recording_rdb {

enum class Function : std::uint8_t {
    create,
    setmessagenotify,
    connectex,
    callmsg,
    tagget,
    taginport,
    objputsnapshot,
    disconnect,
    destory,
};
constexpr std::size_t function_count = 9;

//  The exported name, such as "rdb_create".
const char* name_of(Function function);

//  One remembered call. Fields that the function has no argument for keep their initial values.
struct Call {
    Function function = Function::create;
    std::size_t order = 0;     // place among all calls since reset(), from 0
    std::size_t index = 0;     // place among the calls of the same function, from 0
    bool main_thread = false;  // made by the thread whose id is the process id
    int handle = -1;           // argument; for create the handle given out
    int result = 0;            // as returned

    std::uintptr_t callback = 0;  // setmessagenotify, callmsg: address of the callback
    std::uintptr_t user = 0;      // setmessagenotify, callmsg: user pointer

    std::string url;  // connectex
    std::string account;
    std::string password;
    int reserved = 0;

    std::string text;         // callmsg: the bytes of the request, as many as the length says
    std::int32_t length = 0;  // callmsg: the length argument
    bool terminated = false;  // callmsg: a NUL follows the text

    std::string record;        // tagget, taginport: 256 bytes as given; objputsnapshot: 1104 bytes for each record
    std::string record_after;  // tagget, taginport: the 256 bytes as handed back
    int mode = 0;              // taginport
    std::int32_t result_before = 0;  // taginport: the integer behind the last argument, as given
    int count = 0;                   // objputsnapshot
};

//  Forgets calls, scripts, handles and the observer. Call it between two tests of one program.
void reset();

//  Scripts. index counts the calls of that function from 0; every_call sets what all calls without a script of their
//  own do. A later script for the same call replaces the earlier one.
constexpr std::size_t every_call = SIZE_MAX;

//  What the function returns. For create it is the handle given out.
void script_result(Function function, std::size_t index, int result);

//  The class that rdb_tagget or rdb_taginport stores into the caller's record, also when it returns an error.
//  A negative value leaves the byte alone (which is what rdb_taginport does without a script).
void script_tag_class(Function function, std::size_t index, int tag_class);

//  Lets the call fire an event on the caller's own thread, before it returns. The event goes to the handle of the call.
void script_event(Function function, std::size_t index, std::int32_t event);

//  Lets the call wait, after it was remembered, until release_held().
void script_hold(Function function, std::size_t index);

//  Waits until a call is held. Returns false when none was within milliseconds.
bool wait_held(int milliseconds);
void release_held();

//  A copy of all calls so far, in their order; and of those of one function.
std::vector<Call> calls();
std::vector<Call> calls_of(Function function);

//  Calls the handle's event callback, on the caller's thread or on a new one, and returns after the callback did.
//  Returns false when the handle has no callback.
bool fire_event(int handle, std::int32_t event, std::int64_t value = 0);
bool fire_event_from_thread(int handle, std::int32_t event, std::int64_t value = 0);

//  Calls the reply callback of the request with this index, with the text placed so that the byte after its last one
//  cannot be read. Returns after the callback did; false when there is no such request or it was refused.
bool fire_reply(std::size_t request, std::string_view text);
bool fire_reply_from_thread(std::size_t request, std::string_view text);

//  Called with each call right after it was remembered, one call at a time, with signals blocked. Empty for none.
void set_observer(std::function<void(const Call&)> observer);

//  Called once, at the beginning of the first rdb_create of the process, with no lock held. reset() keeps it.
void set_first_create_hook(void (*hook)());

}  // namespace recording_rdb

#endif
