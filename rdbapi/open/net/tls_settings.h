//  The TLS options of a url. Without them, the server's certificate must be for the host to which the back end
//  connects, and be issued by an authority of the system. The host is one of the url, or one that another server has
//  named, for example the host of a node of a cluster. No option turns the check of the certificate off.
//
//      ca=FILE              the authorities, instead of the system's
//      cert=FILE&key=FILE   the client's certificate with its intermediate certificates, and its private key
//      name=NAME            the name or address that each server's certificate must have, instead of the host
//
//  Files are PEM (RFC 7468), named by absolute paths.
#ifndef RDBAPI_OPEN_NET_TLS_SETTINGS_H
#define RDBAPI_OPEN_NET_TLS_SETTINGS_H

#include "net/url.h"

namespace rdbopen {

struct TlsSettings {
    std::string name;         // required in the certificate; empty: the host to which the back end connects
    std::string authorities;  // path; empty for the system's
    std::string certificate;  // path, or empty
    std::string key;          // path; empty if certificate is empty
    std::string protocol;     // name of the application protocol (RFC 7301); empty for none
};

//  The names of the options, for the reason of a malformed url.
inline constexpr std::string_view tlsOptionWords = "ca, cert, key and name";

//  Returns the name that a server's certificate must have without the option `name`: the host without a final dot, or
//  the address without its zone.
std::string nameInCertificate(const std::string& host);

//  Removes the options `ca`, `cert`, `key` and `name` from url and returns their values. Fails with malformedUrl.
Result<TlsSettings> takeTlsOptions(Url& url);

}  // namespace rdbopen

#endif
