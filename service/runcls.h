//  The service object: its configuration, its two connections of the client library and the publish cycle.
//
//      start() --> rdb server, DNS server: connecting          main loop: publishOnce() for ever
//                  |                                                      |  every 10 s: list the addresses
//                  +-- onRdbEvent, onDnsEvent: connected flags, marks --> |  changed or 600 s old: put, send
//                  +-- onDnsReply: logged                                 |
//
//  Threads: the main thread runs start and publishOnce. The client library may call the three callbacks from threads of
//  its own. They share rdb_connected, dns_connected, snapshot.time and last_sent_time with the cycle: plain word-sized
//  members without a lock, because a stale read costs one cycle of delay. A server that reconnects in the instant in
//  which the cycle sets its mark is told again when the mark has grown old. Nothing else is shared. A connect event
//  clears its mark before it sets its flag, in the machine code too, so that a cycle that sees the flag also sees the
//  cleared mark.
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
    std::int32_t rdb_handle = -1;     // connection to the rdb server; -1 without one
    std::uint32_t rdb_connected = 0;  // 1 after its connect event, 0 after its loss
    olk::ilog* log = nullptr;         // owned; null before start and after the stop
    std::string logurl;               // this and the next four: from the ini file
    std::string hostname;
    std::string rdburl;
    std::string rdbuser;
    std::string rdbpswd;
    time_t last_cycle_time = 0;       // second of the last cycle that the gate let through
    std::string last_put_value;       // address list of the last put
    std::string address_list;         // address list of the current cycle, "null" for none
    std::string last_sent_value;      // address list of the last DNS update
    RdbSnapshot snapshot = {};        // the record put; its time, set after the put, is the last-put mark: the put's
                                      // second times 10. Both the factor and the plain seconds of last_sent_time are
                                      // meant; each comparison knows its own.
    std::int32_t dns_handle = -1;     // connection to the DNS server; -1 without one
    std::uint32_t dns_connected = 0;  // 1 after its connect event, 0 after its loss
    std::string dnsurl;               // this and the next two: from the ini file
    std::string dnsuser;
    std::string dnspswd;
    std::int32_t seqno = 0;                     // number of the last request
    olk::vector_<std::uint16_t> dnshttpsports;  // HTTPS ports told to the DNS server, in configuration order
    time_t last_sent_time = 0;                  // second of the last DNS update

    CRunCls() = default;
    //  Releases the log and closes the rdb-server connection. dns_handle is left alone on purpose: the exit signal, the
    //  one way a started service ends, closes both connections itself.
    ~CRunCls();
    CRunCls(const CRunCls&) = delete;
    CRunCls& operator=(const CRunCls&) = delete;

    //  Gives null without memory, and not by way of an exception: when memory is short from the start, there is none for
    //  one either, and the process would be aborted.
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* object) noexcept;

    //  Reads the ini file, opens the log, rejects an illegal host name and starts both connections. A server that is not
    //  fully configured is left out. Returns false after having reported why; silently when there is no memory for a log
    //  or a text.
    bool start();

    //  Stores the nine keys of the ini file at path; others are ignored. Returns false when it cannot be opened.
    bool loadConfig(const char* path);

    //  Runs one pass of the publish cycle: sleeps 100 ms, and at most every ten seconds lists the addresses and tells
    //  the connected servers what changed, or what was told 600 seconds ago. What finds no memory is left to the next
    //  cycle.
    void publishOnce();

    //  Defines the tag named after the host in the rdb server, through tag. Returns true on success.
    bool importTag(RdbTag& tag);

    //  Fills in the item's name, appends the configured ports to it and hands its request to the DNS server. Returns 0
    //  when it was accepted, else -1.
    std::int32_t updateDomain(DnsUpdateItem& item);

    //  Takes the log away from the callbacks without destroying it. For an object whose start failed: a connection may
    //  be open, and the process ends with the log's memory. Null, for an object that found no memory, is left alone.
    static void forgetLog(CRunCls* run) {
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

//  Callbacks for the client library; user is the CRunCls. Each does nothing while the object has no log.
void onRdbEvent(std::int32_t event, std::int64_t value, void* user);
void onDnsEvent(std::int32_t event, std::int64_t value, void* user);
void onDnsReply(const char* text, std::int32_t length, void* user);

//  Parses a comma-separated list of port numbers into ports, which is cleared first. Items that are 0 or no number are
//  skipped; a number is cut to 16 bits; an item of more than 38 characters ends the list.
void parsePortList(const std::string& text, olk::vector_<std::uint16_t>& ports);

#endif
