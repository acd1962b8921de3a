//  The descriptor of a module. A module is the shared object of one back end, and the descriptor is its only exported
//  symbol.
//
//      librdbapix64-redis.so exports only rdbapix64_redis, of type Module
//
//      | interface | version | schemes | make | advise |
//        |           |
//        same position in every version: both are compared before any other member is used
//
//  The library and the module use the same C++ types, so both must have the same project version. They also use the
//  same malloc, so either may free memory of the other. Other code is separate: a module has its own copies of the
//  parts of net, files, request, engine/report and the C++ run time that it uses. Therefore no exception leaves a
//  function of the descriptor or of the back end that make returns (guarded_backend.h).
//
//  Threads: make and advise may be called on any thread.
#ifndef RDBAPI_OPEN_MODULE_MODULE_H
#define RDBAPI_OPEN_MODULE_MODULE_H

#include "engine/backend.h"
#include "net/url.h"

#include <cstdint>
#include <span>
#include <vector>

namespace rdbopen {

//  Increase this by 1 with each change of Module or of a type that it uses, including Backend.
inline constexpr std::uint32_t moduleInterface = 7;

//  A setting of the service to which an advice refers.
enum class Setting { url, password, hostname };

//  A url and how the service would use it.
struct UrlUse {
    const Url& url;
    const Credentials& credentials;
    std::string_view urlName;                   // the key of the url in the ini file
    std::string_view passwordName;              // the key of the url's password in the ini file
    std::string_view hostname;                  // may be empty
    std::span<const std::uint16_t> httpsPorts;  // HTTPS ports of the host; may be empty
};

//  One piece of advice. text is a sentence without a full stop; it names settings by their keys in the ini file and
//  contains no password.
struct Advice {
    Setting about;
    std::string text;
};

struct Module {
    std::uint32_t interface;  // moduleInterface
    const char* version;      // version of the project
    std::span<const std::string_view> schemes;

    //  Creates a back end. Neither opens it nor contacts the server. The reason of a failure contains no password.
    //  Requires: the url's scheme is one of schemes.
    BackendResult (*make)(const Url& url, const Credentials& credentials) noexcept;

    //  Adds advice on what the administrator should change before the service uses the url. May read files, but changes
    //  nothing and contacts no server. Ignores malformed parts of the url. May skip advice if memory is exhausted.
    void (*advise)(const UrlUse& use, std::vector<Advice>& advice) noexcept;
};

}  // namespace rdbopen

//  Declares the descriptor rdbapix64_SYMBOL and exports it. The module exports no other symbol.
#define RDBAPI_MODULE(SYMBOL) extern "C" __attribute__((visibility("default"))) const rdbopen::Module rdbapix64_##SYMBOL

#endif
