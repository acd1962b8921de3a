#include "net/tls_words.h"

#include <algorithm>
#include <iterator>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

namespace rdbopen {

namespace {

template <class Code>
struct Row {
    Code code;
    const char* words;
};

template <class Code, std::size_t size>
const char* find(const Row<Code> (&rows)[size], Code code) {
    const auto* const found =
        std::find_if(std::begin(rows), std::end(rows), [code](const auto& row) { return row.code == code; });
    return found == std::end(rows) ? nullptr : found->words;
}

//  Each text follows "the server's certificate " or "a certificate of an authority of the server ".
constexpr Row<long> faults[] = {
    {X509_V_ERR_CERT_HAS_EXPIRED, "has expired"},
    {X509_V_ERR_CERT_NOT_YET_VALID, "is not valid yet, by the clock of this machine"},
    {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, "is self-signed and not one of the authorities (ca=FILE)"},
    {X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, "is not one of the known authorities (ca=FILE)"},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, "is issued by an unknown authority (ca=FILE)"},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, "is issued by an unknown authority (ca=FILE)"},
    {X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE, "is issued by an unknown authority (ca=FILE)"},
    {X509_V_ERR_CERT_SIGNATURE_FAILURE, "has a signature that is not that of its authority"},
    {X509_V_ERR_INVALID_CA, "may not issue certificates"},
    {X509_V_ERR_INVALID_PURPOSE, "is not for servers"},
    {X509_V_ERR_CERT_REVOKED, "has been revoked"},
    {X509_V_ERR_EE_KEY_TOO_SMALL, "has a key that is too short"},
    {X509_V_ERR_CA_KEY_TOO_SMALL, "has a key that is too short"},
    {X509_V_ERR_CA_MD_TOO_WEAK, "has a signature that is too weak"},
};

//  Alerts of the server (RFC 8446 section 6), and failures that OpenSSL itself detects.
constexpr Row<int> reasons[] = {
    {SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED, "the server requires a client certificate (cert=FILE and key=FILE)"},
    {SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE,
     "the server refused the handshake: it requires a client certificate (cert=FILE and key=FILE), or has no algorithm "
     "in common"},
    {SSL_R_TLSV1_ALERT_UNKNOWN_CA, "the server does not know the authority of the client certificate"},
    {SSL_R_SSLV3_ALERT_BAD_CERTIFICATE, "the server refused the client certificate"},
    {SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE, "the server refused the client certificate: it is of the wrong kind"},
    {SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED, "the server refused the client certificate: it has been revoked"},
    {SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED, "the server refused the client certificate: it has expired"},
    {SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN, "the server refused the client certificate"},
    {SSL_R_TLSV1_ALERT_ACCESS_DENIED, "the server refused the client certificate: it gives no access"},
    {SSL_R_TLSV1_ALERT_DECRYPT_ERROR, "the server refused the signature of the client certificate"},
    {SSL_R_TLSV1_ALERT_PROTOCOL_VERSION, "the server speaks neither TLS 1.2 nor TLS 1.3"},
    {SSL_R_UNSUPPORTED_PROTOCOL, "the server speaks neither TLS 1.2 nor TLS 1.3"},
    {SSL_R_WRONG_SSL_VERSION, "the server speaks neither TLS 1.2 nor TLS 1.3"},
    {SSL_R_TLSV1_ALERT_INSUFFICIENT_SECURITY, "the server requires stronger algorithms"},
    {SSL_R_TLSV1_UNRECOGNIZED_NAME, "the server has no certificate for the name (name=NAME)"},
    {SSL_R_TLSV1_ALERT_NO_APPLICATION_PROTOCOL, "the server does not offer this service at this port"},
    {SSL_R_NO_RENEGOTIATION, "the server wants a new handshake, which is refused"},
    {SSL_R_DH_KEY_TOO_SMALL, "the algorithms of the server are too weak"},
    {SSL_R_WRONG_SIGNATURE_TYPE, "the algorithms of the server are too weak"},
    {SSL_R_WRONG_VERSION_NUMBER, "the server violates the TLS protocol"},
    {ERR_R_MALLOC_FAILURE, "out of memory"},
};

}  // namespace

std::string certificateWords(long error, int depth, const std::string& name) {
    if (error == X509_V_ERR_HOSTNAME_MISMATCH || error == X509_V_ERR_IP_ADDRESS_MISMATCH)
        return "the server's certificate is not for " + name + " (name=NAME)";
    if (error == X509_V_ERR_OUT_OF_MEM)
        return "out of memory";
    const std::string subject =
        depth == 0 ? "the server's certificate " : "a certificate of an authority of the server ";
    const char* const known = find(faults, error);
    return subject +
           (known != nullptr ? known : "is not accepted: " + std::string(X509_verify_cert_error_string(error)));
}

std::string tlsErrorWords(unsigned long error) {
    if (const char* const known = find(reasons, ERR_GET_REASON(error)); known != nullptr)
        return known;
    const char* const text = ERR_reason_error_string(error);
    return text == nullptr ? "TLS failed" : "TLS failed: " + std::string(text);
}

}  // namespace rdbopen
