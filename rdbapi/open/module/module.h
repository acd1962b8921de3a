//  What a module, the shared object of one back end, gives to the program that loads it: one descriptor.
//
//      librdbapix64-redis.so exports rdbapix64_redis, a Module, and nothing else
//
//      | interface | version | schemes | make | advise |
//        |           |
//        the same in every version, so that a module of another version is recognised before anything else of it is used
//
//  Both sides use the same C++ types and the same malloc, so the version of the project has to be equal. Everything else of
//  the two, the C++ run time included, is separate: a module has its own copy of net, files, request and engine/report.
//  Nothing is thrown out of a function of the descriptor or of a back end that it makes (guarded_backend.h): a failure
//  crosses the edge as a Status or a Result, as everywhere else, since both sides free the memory of its reason alike.
//
//  Threads: make and advise on any thread.
#ifndef RDBAPI_OPEN_MODULE_MODULE_H
#define RDBAPI_OPEN_MODULE_MODULE_H

#include "engine/backend.h"
#include "net/url.h"

#include <cstdint>
#include <span>
#include <vector>

namespace rdbopen {

//  Raised by 1 with each change of Module or of a type that it uses, Backend included.
inline constexpr std::uint32_t moduleInterface = 2;

//  A setting of the service on which a back end has advice.
enum class Setting { url, password, hostname };

//  A url and how the service would use it.
struct UrlUse {
    const Url& url;
    const Credentials& credentials;
    std::string_view urlName;                   // the key of the url in the ini file
    std::string_view passwordName;              // the key of its password
    std::string_view hostname;                  // may be empty
    std::span<const std::uint16_t> httpsPorts;  // of the host; may be empty
};

//  A sentence without subject and full stop; names every setting by its key in the ini file. Holds no password.
struct Advice {
    Setting about;
    std::string text;
};

struct Module {
    std::uint32_t interface;  // moduleInterface
    const char* version;      // of the project
    std::span<const std::string_view> schemes;

    //  Makes a back end, unopened and without any exchange. The reason of a failure holds no password. Requires: the
    //  url's scheme is one of schemes.
    BackendResult (*make)(const Url& url, const Credentials& credentials) noexcept;

    //  Adds what the administrator should change before the service uses the url. Reads files, changes nothing and
    //  contacts no server. Adds nothing for a malformed url. A lack of memory may lose advice.
    void (*advise)(const UrlUse& use, std::vector<Advice>& advice) noexcept;
};

}  // namespace rdbopen

//  Declares the descriptor of the back end NAME. It is the one symbol that the module exports.
#define RDBAPI_MODULE(NAME) extern "C" __attribute__((visibility("default"))) const rdbopen::Module rdbapix64_##NAME

#endif
