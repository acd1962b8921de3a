//  A client library for tests: it returns scripted results and records the service's calls.
//
//  recording_rdb.cpp defines the nine functions of rdbapi.h. Each call first applies the result and the tag class of
//  its script. Then the call is stored with its position in the order of all calls, its arguments and the raw bytes of
//  its records. Last, it delivers the event of its script, and waits if the script holds it. Without a script every
//  call succeeds: handles are 0, 1, 2, ..., rdb_tagget stores class 2, and the functions other than rdb_create return
//  0. Before it stores the class, rdb_tagget sets all bytes of the record except the name to 0xa5, so that a test
//  detects a caller that does not clear the record for its next call.
//
//  In a unit test (target recording_rdb) the test calls the functions below directly. In the shared library for system
//  tests, recording_control.cpp calls them for a test in another process. The calls are then in a file and not in
//  memory, so that any growth of the process is caused by the service.
//
//  Threads: any thread may call these functions and the nine functions of rdbapi.h. A signal handler may call
//  rdb_disconnect and rdb_destory unless it has interrupted malloc. Callbacks run without a lock. Nothing is written to
//  standard output or standard error.
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

//  Returns the exported name, such as "rdb_create".
const char* name_of(Function function);

//  One recorded call. A field whose comment names other functions keeps its initial value.
struct Call {
    Function function = Function::create;
    std::size_t order = 0;     // number among the stored calls, from 0
    std::size_t index = 0;     // number among the calls of the same function, from 0
    bool main_thread = false;  // called on the main thread, whose id is the process id
    int handle = -1;           // argument; for create the returned handle
    int result = 0;            // returned value

    std::uintptr_t callback = 0;  // setmessagenotify, callmsg: address of the callback
    std::uintptr_t user = 0;      // setmessagenotify, callmsg: user pointer

    std::string url;  // connectex
    std::string account;
    std::string password;
    int reserved = 0;

    std::string text;         // callmsg: the bytes of the request, length bytes
    std::int32_t length = 0;  // callmsg: the length argument
    bool terminated = false;  // callmsg: a zero byte follows the text

    std::string record;              // tagget, taginport: 256 bytes as passed; objputsnapshot: 1104 for each record
    int mode = 0;                    // taginport
    std::int32_t result_before = 0;  // taginport: the integer that the last argument points to, before the call
    int count = 0;                   // objputsnapshot
};

//  Clears calls, scripts, handles and the observer. Must be called between two tests of one program.
void reset();

//  Scripts. The parameter index is the number of the call of that function, from 0, or every_call for all calls. A
//  script for a single call overrides one of the same kind for every call. A later script for the same call replaces an
//  earlier one of the same kind.
constexpr std::size_t every_call = SIZE_MAX;

//  Sets the result of the function; for create, the returned handle.
void script_result(Function function, std::size_t index, int result);

//  Sets the class that rdb_tagget or rdb_taginport stores in the caller's record, even if it returns an error.
//  A negative value leaves the byte unchanged; this is the default for rdb_taginport.
void script_tag_class(Function function, std::size_t index, int tag_class);

//  Makes the call deliver an event on the caller's own thread before it returns. The event has the handle of the call.
void script_event(Function function, std::size_t index, std::int32_t event);

//  Makes the call wait, after it was stored, until release_held().
void script_hold(Function function, std::size_t index);

//  Waits until a call is held. Returns false if no call is held within this many milliseconds.
bool wait_held(int milliseconds);
void release_held();

//  Returns a copy of all calls so far in order, or of those of one function.
std::vector<Call> calls();
std::vector<Call> calls_of(Function function);

//  Calls the handle's event callback, on the caller's thread or on a new one, and returns after the callback. Returns
//  false if the handle has no callback.
bool fire_event(int handle, std::int32_t event, std::int64_t value = 0);
bool fire_event_from_thread(int handle, std::int32_t event, std::int64_t value = 0);

//  Calls the reply callback of the last request that was not refused. The byte after the text cannot be read. Returns
//  true after the callback, or false if there is no such request.
bool fire_reply(std::string_view text);
bool fire_reply_from_thread(std::string_view text);

//  Sets a function that is called with each call, one at a time, with signals blocked. An empty function removes the
//  observer.
void set_observer(std::function<void(const Call&)> observer);

//  Stops storing calls: from now on only the observer gets them, and calls() does not change.
void stop_storing();

//  Sets a function that is called once, without a lock, at the start of the process's first rdb_create. reset() keeps
//  it.
void set_first_create_hook(void (*hook)());

}  // namespace recording_rdb

#endif
