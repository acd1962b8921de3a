//  Finds the primary server of a zone: MNAME of the zone's SOA record (RFC 1035 section 3.3.13, RFC 2136 section 4.3).
//  The system's resolver (resolv.conf(5)) provides this record.
//
//  The record is not authenticated. If it is forged, the requests go to a wrong server. They fail there, because that
//  server cannot sign answers with the key.
//
//  Threads: any thread may call these functions.
#ifndef RDBAPI_OPEN_DNS_PRIMARY_H
#define RDBAPI_OPEN_DNS_PRIMARY_H

#include "engine/status.h"

#include <chrono>
#include <cstdint>
#include <span>
#include <string>

namespace rdbopen {

//  Returns the name of the primary server of zone. Closing the handle does not interrupt the query, which takes at most
//  2 s for each name server of resolv.conf(5). Its duration is added to until. Fails with errorBackendFailed.
Result<std::string> findPrimary(const std::string& zone, std::chrono::milliseconds& until);

//  Returns MNAME of the SOA record of zone in answer. answer may contain any bytes. Fails with errorBackendFailed.
Result<std::string> primaryOf(std::span<const std::uint8_t> answer, const std::string& zone);

}  // namespace rdbopen

#endif
