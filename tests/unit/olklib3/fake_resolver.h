//  A simulated resolver. It answers names from a table. The real getaddrinfo answers address literals unless
//  `answers_literals` is true. Any other name does not resolve.
//
//  Test programs are linked with --wrap for getaddrinfo, freeaddrinfo and inet_ntop. At most one object exists at a
//  time; without an object the real calls are made. The object owns all lists that it returned, including those of the
//  real resolver. It frees them when it is destroyed, so a caller that frees no list causes no leak here.
//
//  Threads: one thread only.
#ifndef FAKE_RESOLVER_H
#define FAKE_RESOLVER_H

#include <list>
#include <map>
#include <string>
#include <vector>

#include <netdb.h>
#include <sys/socket.h>

class FakeResolver {
public:
    FakeResolver();
    ~FakeResolver();
    FakeResolver(const FakeResolver&) = delete;
    FakeResolver& operator=(const FakeResolver&) = delete;

    //  Sets the resolver's answer for `name`: IPv4 and IPv6 addresses, in the order of `addresses`. The words "local"
    //  and "packet" are entries of the families AF_UNIX and AF_PACKET, whose numbers are below and above those of IP.
    //  If `addresses` is empty, the lookup succeeds with an empty list.
    void add(const std::string& name, std::vector<std::string> addresses);

    //  If true, the object itself answers address literals that inet_pton accepts. This is much faster than the real
    //  resolver.
    bool answers_literals = false;

    std::vector<std::string> asked;                    // requested names, in order
    std::vector<addrinfo> hints;                       // hints of each call
    bool service_given = false;                        // a call specified a service
    int lists_given = 0;                               // returned lists with at least one entry
    int lists_freed = 0;                               // calls of freeaddrinfo
    std::vector<std::pair<int, socklen_t>> converted;  // family and buffer size of each call of inet_ntop
    std::vector<int> unconvertible;                    // one number per call of inet_ntop, in order: 1 makes it fail

    int answer(const char* name, const char* service, const addrinfo* wanted, addrinfo** list);
    const char* convert(int family, const void* address, char* text, socklen_t size);

private:
    struct Entry {
        addrinfo info;
        sockaddr_storage address;
    };
    int answer_made(const std::vector<std::string>& addresses, addrinfo** list);

    std::map<std::string, std::vector<std::string>> names_;
    std::list<std::vector<Entry>> made_;
    std::vector<addrinfo*> real_;
};

//  Adds the names that the tests share: both.example has two addresses of each family, first an IPv6 address;
//  four.example and six.example have one family each; local.example has neither; empty.example resolves to an empty
//  list.
void add_example_names(FakeResolver& resolver);

#endif
