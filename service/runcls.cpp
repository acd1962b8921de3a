//  Start and destruction of the service object.
#include "runcls.h"

#include "inifile.h"
#include "olk_prtlog.h"
#include "olk_udplog.h"
#include "olk_words.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <strings.h>

void* CRunCls::operator new(std::size_t size) noexcept {
    return std::malloc(size);
}

void CRunCls::operator delete(void* object) noexcept {
    std::free(object);
}

CRunCls::~CRunCls() {
    olk::release(log);
    log = nullptr;
    if (rdb_handle >= 0) {
        rdb_disconnect(rdb_handle);
        rdb_destory(rdb_handle);
        rdb_handle = -1;
    }
}

bool CRunCls::start() {
    try {
        return startAll();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool CRunCls::startAll() {
    const std::string ini_path = getExeDir() + "addrpubd.ini";
    if (!loadConfig(ini_path.c_str())) {
        std::printf("Load %s failed.\n", ini_path.c_str());
        return false;
    }
    openLog();
    if (log == nullptr)
        return false;  // memory is exhausted; without a log the callbacks do nothing
    log->add(olk::level_inf, "\n\tstart addrpubd...");
    if (!checkHostname(ini_path) || !connectRdbServer() || !connectDnsServer())
        return false;
    log->add(olk::level_inf, "addrpubd service started successfully.");
    return true;
}

//  The scheme of logurl selects the log. The result of opening it is not checked: if the log cannot write, the service
//  runs without log output. The member log is set last, so that no other code finds a log that is not open yet.
void CRunCls::openLog() {
    char scheme[olk::word_size];
    std::size_t position = 0;
    const olk::word_end end = olk::read_word(logurl.data(), logurl.size(), position, ":/", scheme);
    olk::ilog* chosen = nullptr;
    if (end == olk::word_end::separator && strcasecmp(scheme, "udp") == 0)
        chosen = new olk::udplog;
    else
        chosen = new olk::prtlog(olk::level_dbg);
    if (chosen != nullptr)
        chosen->open(logurl.c_str());
    log = chosen;
}

bool CRunCls::checkHostname(const std::string& ini_path) {
    if (hostname.empty()) {
        log->add(olk::level_err, "not config hostname in %s", ini_path.c_str());
        return false;
    }
    for (const char c : hostname) {
        //  strchr also finds the terminating zero of its set, so the test also rejects a zero byte.
        if (std::strchr("'\"():", c) != nullptr) {
            log->add(olk::level_err, "hostname contains illegal characters in %s", ini_path.c_str());
            return false;
        }
    }
    return true;
}

bool CRunCls::connectRdbServer() {
    if (rdburl.empty() || rdbuser.empty() || rdbpswd.empty()) {
        log->add(olk::level_inf, "rdburl: not config.");
        return true;
    }
    log->add(olk::level_inf, "rdburl: %s", rdburl.c_str());
    rdb_handle = rdb_create();
    if (rdb_handle < 0) {
        log->add(olk::level_err, "rdb_create failed");
        return false;
    }
    rdb_setmessagenotify(rdb_handle, onRdbEvent, this);
    if (rdb_connectex(rdb_handle, rdburl.c_str(), rdbuser.c_str(), rdbpswd.c_str(), 0) != 0) {
        log->add(olk::level_err, "rdb_connectex %s asynchronous connection failed", rdburl.c_str());
        rdb_destory(rdb_handle);
        rdb_handle = -1;
        return false;
    }
    return true;
}

//  On failure the connection to the rdb server stays open, because the process ends soon after.
bool CRunCls::connectDnsServer() {
    if (dnsurl.empty() || dnsuser.empty() || dnspswd.empty()) {
        log->add(olk::level_inf, "dnsurl: not config.");
        return true;
    }
    log->add(olk::level_inf, "dnsurl: %s", dnsurl.c_str());
    dns_handle = rdb_create();
    if (dns_handle < 0) {
        log->add(olk::level_err, "create DNS Server connect %s failed", dnsurl.c_str());
        return false;
    }
    rdb_setmessagenotify(dns_handle, onDnsEvent, this);
    if (rdb_connectex(dns_handle, dnsurl.c_str(), dnsuser.c_str(), dnspswd.c_str(), 0) != 0) {
        log->add(olk::level_err, "connectex %s asynchronous connection failed", dnsurl.c_str());
        rdb_destory(dns_handle);
        dns_handle = -1;
        return false;
    }
    return true;
}
