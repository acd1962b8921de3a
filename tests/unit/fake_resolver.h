//  The system's resolver as a test wants it: names come from a table, address literals go to the real getaddrinfo.
//
//  The programs that use it are linked with --wrap for getaddrinfo, freeaddrinfo and inet_ntop. One fake lives at a time;
//  without one the calls are the real ones. It owns every list that it gave out, the real resolver's among them, and frees
//  them at its end, so a caller that gives none back leaks nothing here.
//
//  Threads: for one thread.
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

    //  Gives a name its answer: addresses in the resolver's order, each IPv4 or IPv6, or "local" or "packet" for an entry
    //  of another family, whose number is below or above. No addresses at all is a success with an empty list.
    void add(const std::string& name, std::vector<std::string> addresses);

    //  Lets literals be answered from their text too, which is much faster than the real resolver.
    bool answers_literals = false;

    std::vector<std::string> asked;                    // the names, in order
    std::vector<addrinfo> hints;                       // as given, one for each call
    bool service_given = false;                        // some call named a service
    int lists_given = 0;                               // answers with at least one entry
    int lists_freed = 0;                               // calls of freeaddrinfo
    std::vector<std::pair<int, socklen_t>> converted;  // calls of inet_ntop: family and buffer size
    std::vector<int> unconvertible;                    // for each call of inet_ntop, in order: 1 makes it fail

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

//  The names that the tests share: both.example has an address of each family, IPv6 first; four.example and six.example
//  have one family only; local.example has none of either; empty.example resolves to nothing.
void add_example_names(FakeResolver& resolver);

#endif
