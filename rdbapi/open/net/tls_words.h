//  Why a TLS connection failed, as text for the operator. The texts hold no byte that the server has sent.
#ifndef RDBAPI_OPEN_NET_TLS_WORDS_H
#define RDBAPI_OPEN_NET_TLS_WORDS_H

#include <string>

namespace rdbopen {

//  Returns why the server's certificate is not accepted. error: X509_V_ERR_...; depth: the position of the certificate
//  in question, 0 for the server's own; name: for which the certificate must be.
std::string certificateWords(long error, int depth, const std::string& name);

//  Returns what an entry of OpenSSL's error queue means; 0 for none. Requires: it is not about the server's
//  certificate.
std::string tlsErrorWords(unsigned long error);

}  // namespace rdbopen

#endif
