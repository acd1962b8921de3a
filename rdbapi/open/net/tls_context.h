//  The part of a TLS connection that comes from files: authorities, and the client's certificate and key.
//
//  OpenSSL is used without its configuration file, and environment variables such as SSL_CERT_DIR do not change which
//  files it reads: the environment must not decide whom the service trusts. The system's authorities are those of the
//  folder that OpenSSL has compiled in: on Debian /usr/lib/ssl/certs, a link to /etc/ssl/certs.
//
//  Threads: any thread may call these functions.
#ifndef RDBAPI_OPEN_NET_TLS_CONTEXT_H
#define RDBAPI_OPEN_NET_TLS_CONTEXT_H

#include "engine/status.h"
#include "net/tls_settings.h"

#include <memory>
#include <openssl/ssl.h>
#include <vector>

namespace rdbopen {

struct FreeTls {
    void operator()(SSL* connection) const noexcept { SSL_free(connection); }
    void operator()(SSL_CTX* context) const noexcept { SSL_CTX_free(context); }
    void operator()(X509* certificate) const noexcept { X509_free(certificate); }
    void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
    void operator()(BIO* bio) const noexcept { BIO_free(bio); }
};
template <class T>
using TlsPointer = std::unique_ptr<T, FreeTls>;
using Certificates = std::vector<TlsPointer<X509>>;

//  Initialises OpenSSL at the first call. OpenSSL then registers no exit handler, because threads of the library may
//  still use OpenSSL during exit. All signals are blocked during the call. Fails with errorNoResources.
Status prepareTls();

//  Reads all certificates of a file. Fails if there is none. The reason of a failure begins with the path.
Result<Certificates> readCertificates(const std::string& path);

//  Reads a private key, which must not be encrypted. The reason of a failure begins with the path.
Result<TlsPointer<EVP_PKEY>> readPrivateKey(const std::string& path);

//  Makes the context of a client that uses TLS 1.2 or 1.3, with the authorities, certificate and key of the settings.
//  The context does not require that the server is verified: each connection must do so with SSL_set_verify. Reads the
//  files of the settings at each call. Fails with errorBackendFailed. Requires: prepareTls has succeeded.
Result<TlsPointer<SSL_CTX>> makeTlsContext(const TlsSettings& settings);

}  // namespace rdbopen

#endif
