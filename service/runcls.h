//  The service object: its configuration, its two connections of the client library, and the publish cycle.
//
//      start()                    starts both connections: rdb server, DNS server
//      publishOnce()              the main loop calls it repeatedly; every 10 s it lists the addresses, and puts and
//                                 sends a list that has changed or is 600 s old
//      onRdbEvent, onDnsEvent     set the connected flags and clear the marks (see below)
//      onDnsReply                 logs the reply
//
//  Threads: the main thread runs start and publishOnce. The client library may call the three callbacks on its own
//  threads. Besides the pointer log, callbacks and cycle share only rdb_connected, dns_connected, snapshot.time and
//  last_sent_time. These are plain members of 4 or 8 bytes without a lock: a stale read delays the list by one cycle.
//  The two times are called marks: each is the time when the list was last put or sent to a server, or 0 after a
//  connect event of this server. If a server reconnects during a cycle, the cycle may overwrite the cleared mark. Only
//  then the delay is longer: an unchanged list is not put or sent again before the mark is 600 s old or the server
//  reconnects again. A connect event clears the mark before it sets the connected flag, also in the machine code. On
//  x86-64, other threads see two stores in their order. So a cycle that sees the flag of the new connection also sees
//  the cleared mark, unless an earlier cycle has overwritten it.
#ifndef SERVICE_RUNCLS_H
#define SERVICE_RUNCLS_H

#include "dnsupdate.h"
#include "olk_log.h"
#include "olk_vector.h"
#include "rdbapi.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

class CRunCls {
public:
    std::int32_t rdb_handle = -1;     // connection to the rdb server; -1 if none
    std::uint32_t rdb_connected = 0;  // 1 after its connect event, 0 after its disconnect event
    olk::ilog* log = nullptr;         // owned; null before start, after detachLog and after the exit signal
    std::string logurl;               // this member and the next four: from the ini file
    std::string hostname;
    std::string rdburl;
    std::string rdbuser;
    std::string rdbpswd;
    time_t last_cycle_time = 0;       // time of the last cycle, seconds
    std::string last_put_value;       // address list of the last put
    std::string address_list;         // address list of the current cycle; "null" if there is no address
    std::string last_sent_value;      // address list of the last DNS update
    RdbSnapshot snapshot = {};        // the record of the last put. Its member time is the time of that put in seconds
                                      // times 10, and 0 after a connect event. last_sent_time is in seconds; both units
                                      // are deliberate.
    std::int32_t dns_handle = -1;     // connection to the DNS server; -1 if none
    std::uint32_t dns_connected = 0;  // 1 after its connect event, 0 after its disconnect event
    std::string dnsurl;               // this member and the next two: from the ini file
    std::string dnsuser;
    std::string dnspswd;
    std::int32_t seqno = 0;                     // number of requests so far, at most INT32_MAX
    olk::vector_<std::uint16_t> dnshttpsports;  // this host's HTTPS ports, in the order of the ini file
    time_t last_sent_time = 0;                  // time of the last DNS update, seconds; 0 after a connect event

    CRunCls() = default;
    //  Releases the log and closes the connection to the rdb server. It deliberately leaves dns_handle open: a started
    //  service ends by the exit signal, which closes both connections itself.
    ~CRunCls();
    CRunCls(const CRunCls&) = delete;
    CRunCls& operator=(const CRunCls&) = delete;

    //  Yields null if memory is exhausted, instead of throwing. Memory for an exception might be missing, too, and that
    //  would abort the process.
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* object) noexcept;

    //  Reads the ini file, opens the log, rejects an illegal host name and starts both connections. A server that is
    //  not completely configured is not used. Returns false on failure and logs the reason. If the ini file cannot be
    //  opened, it prints the reason instead; if memory for the log or for a text is missing, it reports nothing.
    bool start();

    //  Reads the ini file at path and stores the values of the nine keys; ignores other keys. Returns false if the file
    //  cannot be opened.
    bool loadConfig(const char* path);

    //  Sleeps 100 ms, then runs a publish cycle if a server is connected and the time differs from that of the last
    //  cycle by at least 10 seconds. A cycle lists the addresses. It puts or sends the list to a connected server if
    //  the list has changed, if the last put or request was at least 600 seconds ago, or after a reconnection;
    //  publish.cpp describes the exceptions. A cycle that std::bad_alloc ends is repeated by the next cycle. A
    //  request for which the allocator of olklib3 has no memory is shortened or left out, and counts as sent.
    void publishOnce();

    //  Fills tag and uses it to define the tag of the host in the rdb server. Returns true on success.
    bool importTag(RdbTag& tag);

    //  Sets the name of item, appends the configured ports and sends the request to the DNS server. Returns 0 if the
    //  client library accepts the request, else -1.
    std::int32_t updateDomain(DnsUpdateItem& item);

    //  Sets the pointer to the log to null without destroying the log. Used for an object whose start failed: a
    //  connection and its callbacks may still be active, and the process ends soon. Does nothing if run is null.
    static void detachLog(CRunCls* run) {
        if (run != nullptr)
            run->log = nullptr;
    }

private:
    bool startAll();
    void openLog();
    bool checkHostname(const std::string& ini_path);
    bool connectRdbServer();
    bool connectDnsServer();
    void storeSetting(const std::string& key, const std::string& value);

    void runCycle(time_t now);
    void listAddresses();
    bool putSnapshot(time_t now);
    bool ensureTag();
    void sendUpdate(time_t now);
};

//  Callbacks for the client library. The argument user points to the CRunCls. A callback does nothing while the object
//  has no log.
void onRdbEvent(std::int32_t event, std::int64_t value, void* user);
void onDnsEvent(std::int32_t event, std::int64_t value, void* user);
void onDnsReply(const char* text, std::int32_t length, void* user);

//  Parses a comma-separated list of port numbers into ports, which is cleared first. Items are read as strtol reads
//  numbers and reduced to 16 bits; an item that is then 0 is skipped. An item of more than 38 characters ends the list.
void parsePortList(const std::string& text, olk::vector_<std::uint16_t>& ports);

#endif
