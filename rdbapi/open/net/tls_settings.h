//  What a url says about the TLS of its connection. Without an option, the server's certificate must be for the host by
//  which the server is contacted, and be issued by an authority of the system. This host is in the url or, for example
//  for a node of a cluster, was named by another server. No option turns this check off.
//
//      ca=FILE              the authorities, instead of the system's
//      cert=FILE&key=FILE   the client's certificate with its intermediate certificates, and its private key
//      name=NAME            the name or address that each server's certificate must have, instead of that host
//
//  Files are PEM (RFC 7468), named by absolute paths.
#ifndef RDBAPI_OPEN_NET_TLS_SETTINGS_H
#define RDBAPI_OPEN_NET_TLS_SETTINGS_H

#include "net/url.h"

namespace rdbopen {

struct TlsSettings {
    std::string name;         // required in the certificate; empty: the host by which the server is contacted
    std::string authorities;  // path; empty for the system's
    std::string certificate;  // path, or empty
    std::string key;          // path; empty if certificate is empty
    std::string protocol;     // name of the application protocol (RFC 7301); empty for none
};

//  Words for the options in the reason of a malformed url.
inline constexpr std::string_view tlsOptionWords = "ca, cert, key and name";

//  Returns the name that a server's certificate must have if the option name is not given: the host without a final
//  dot, or the address without its zone.
std::string nameInCertificate(const std::string& host);

//  Removes the options above from url and returns their values. Fails with malformedUrl.
Result<TlsSettings> takeTlsOptions(Url& url);

}  // namespace rdbopen

#endif
