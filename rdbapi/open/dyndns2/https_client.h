//  Requests by HTTPS, with libcurl. Every wait ends at a given time or when the handle is closed. Only the resolution
//  of the server's name can take longer: a thread of libcurl calls getaddrinfo(3), and the end of a request waits for
//  that thread.
//
//  The server's certificate is always verified. Proxies, .netrc and redirections are not used. If the environment
//  variable SSLKEYLOGFILE names a file, libcurl creates the file, but no key is written to it.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_DYNDNS2_HTTPS_CLIENT_H
#define RDBAPI_OPEN_DYNDNS2_HTTPS_CLIENT_H

#include "engine/status.h"
#include "engine/waiter.h"
#include "net/url.h"

#include <chrono>
#include <string>

namespace rdbopen {

struct HttpsRequest {
    Server server;
    std::string path;         // not percent-encoded
    std::string query;        // percent-encoded
    std::string authorities;  // path of a file with certificates; empty: those of the system
    std::string user;
    std::string password;
};

struct HttpsAnswer {
    long status = 0;   // HTTP status code
    std::string body;  // at most maxBody bytes; the rest is dropped

    static constexpr std::size_t maxBody = 1024;
};

//  Initializes libcurl at the first call. Requires: prepareTls (net/tls_context.h) has succeeded. Fails with
//  errorNoResources.
Status prepareHttps();

//  Connects to the server and completes the TLS handshake, but sends no request. Fails with errorBackendFailed.
Status testHttps(const HttpsRequest& request, const Waiter& waiter, std::chrono::milliseconds until);

//  Sends a GET request with basic authentication, and returns the answer, whatever its status code. Fails with
//  errorBackendFailed; the server may have received the request even then.
Result<HttpsAnswer> getByHttps(const HttpsRequest& request, const Waiter& waiter, std::chrono::milliseconds until);

}  // namespace rdbopen

#endif
