//  Why a TLS connection failed, as text for the operator. The texts quote nothing from the certificates and messages of
//  the server.
#ifndef RDBAPI_OPEN_NET_TLS_WORDS_H
#define RDBAPI_OPEN_NET_TLS_WORDS_H

#include <string>

namespace rdbopen {

//  Returns why the server's certificate is not accepted. error: a code X509_V_ERR_...; depth: the position of the
//  rejected certificate in the chain, 0 for the server's own; name: the name that the server's certificate must have.
std::string certificateWords(long error, int depth, const std::string& name);

//  Returns the meaning of error, an entry of OpenSSL's error queue; error is 0 if the queue is empty. Requires: error
//  does not concern the server's certificate.
std::string tlsErrorWords(unsigned long error);

}  // namespace rdbopen

#endif
