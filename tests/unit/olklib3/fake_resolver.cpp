#include "fake_resolver.h"

#include <cstring>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace {

FakeResolver* the_fake = nullptr;

}  // namespace

extern "C" {
int __real_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**);
void __real_freeaddrinfo(addrinfo*);
const char* __real_inet_ntop(int, const void*, char*, socklen_t);

int __wrap_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list) {
    return the_fake != nullptr ? the_fake->answer(name, service, hints, list)
                               : __real_getaddrinfo(name, service, hints, list);
}

void __wrap_freeaddrinfo(addrinfo* list) {
    if (the_fake != nullptr)
        ++the_fake->lists_freed;
    else
        __real_freeaddrinfo(list);
}

const char* __wrap_inet_ntop(int family, const void* address, char* text, socklen_t size) {
    return the_fake != nullptr ? the_fake->convert(family, address, text, size)
                               : __real_inet_ntop(family, address, text, size);
}
}

FakeResolver::FakeResolver() {
    the_fake = this;
}

FakeResolver::~FakeResolver() {
    the_fake = nullptr;
    for (addrinfo* list : real_)
        __real_freeaddrinfo(list);
}

void FakeResolver::add(const std::string& name, std::vector<std::string> addresses) {
    names_[name] = std::move(addresses);
}

int FakeResolver::answer(const char* name, const char* service, const addrinfo* wanted, addrinfo** list) {
    asked.emplace_back(name);
    hints.push_back(wanted != nullptr ? *wanted : addrinfo{});
    service_given = service_given || service != nullptr;
    const auto known = names_.find(name);
    if (known != names_.end())
        return answer_made(known->second, list);
    in6_addr binary;
    if (answers_literals && (inet_pton(AF_INET, name, &binary) == 1 || inet_pton(AF_INET6, name, &binary) == 1))
        return answer_made({name}, list);
    addrinfo numeric = {};
    numeric.ai_flags = AI_NUMERICHOST;
    addrinfo* found = nullptr;
    const int literal = __real_getaddrinfo(name, nullptr, &numeric, &found);
    if (literal != 0)
        return EAI_NONAME;
    __real_freeaddrinfo(found);
    const int result = __real_getaddrinfo(name, service, wanted, list);
    if (result == 0) {
        real_.push_back(*list);
        ++lists_given;
    }
    return result;
}

int FakeResolver::answer_made(const std::vector<std::string>& addresses, addrinfo** list) {
    std::vector<Entry>& entries = made_.emplace_back(addresses.size());
    *list = entries.empty() ? nullptr : &entries.front().info;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        Entry& entry = entries[i];
        sockaddr_in ipv4 = {};
        sockaddr_in6 ipv6 = {};
        if (inet_pton(AF_INET, addresses[i].c_str(), &ipv4.sin_addr) == 1) {
            ipv4.sin_family = AF_INET;
            std::memcpy(&entry.address, &ipv4, sizeof ipv4);
        } else if (inet_pton(AF_INET6, addresses[i].c_str(), &ipv6.sin6_addr) == 1) {
            ipv6.sin6_family = AF_INET6;
            std::memcpy(&entry.address, &ipv6, sizeof ipv6);
        } else {
            entry.address.ss_family = addresses[i] == "packet" ? AF_PACKET : AF_UNIX;
        }
        entry.info.ai_family = entry.address.ss_family;
        entry.info.ai_addr = reinterpret_cast<sockaddr*>(&entry.address);
        entry.info.ai_addrlen = sizeof entry.address;
        entry.info.ai_next = i + 1 < entries.size() ? &entries[i + 1].info : nullptr;
    }
    lists_given += entries.empty() ? 0 : 1;
    return 0;
}

const char* FakeResolver::convert(int family, const void* address, char* text, socklen_t size) {
    const std::size_t call = converted.size();
    converted.emplace_back(family, size);
    if (call < unconvertible.size() && unconvertible[call] != 0)
        return nullptr;
    return __real_inet_ntop(family, address, text, size);
}

void add_example_names(FakeResolver& resolver) {
    resolver.add("both.example", {"2001:db8::77", "192.0.2.77", "2001:db8::78", "192.0.2.78"});
    resolver.add("four.example", {"192.0.2.4"});
    resolver.add("six.example", {"2001:db8::6"});
    resolver.add("local.example", {"local"});
    resolver.add("empty.example", {});
}
