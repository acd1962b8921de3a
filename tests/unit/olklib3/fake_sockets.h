//  Simulated sockets that record their calls. The calls of socket, setsockopt, fcntl, sendto and inet_pton can be made
//  to fail.
//
//  Test programs are linked with --wrap for socket, setsockopt, fcntl, sendto, shutdown, close, inet_pton, malloc,
//  operator new and the pool's malloc_. At most one object exists at a time; without an object the real calls are made.
//
//  Threads: any thread may call sendto, malloc, operator new and malloc_. All other functions are called by one thread.
#ifndef FAKE_SOCKETS_H
#define FAKE_SOCKETS_H

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/types.h>

struct Datagram {
    int fd = -1;
    std::string bytes;
    int flags = 0;
    bool addressed = false;   // the call had a destination
    std::string destination;  // the bytes of the destination
    socklen_t destination_length = 0;
};

class FakeSockets {
public:
    FakeSockets();
    ~FakeSockets();
    FakeSockets(const FakeSockets&) = delete;
    FakeSockets& operator=(const FakeSockets&) = delete;

    //  The calls of socket, fcntl, setsockopt, shutdown and close, in order. Examples: "socket 2 2 17", "close 1000".
    //  The first socket has descriptor 1000.
    std::vector<std::string> calls;
    std::vector<Datagram> sent;

    bool socket_fails = false;
    bool setsockopt_fails = false;
    bool fcntl_fails = false;
    bool inet_pton_fails = false;
    bool sendto_fails = false;
    bool forgets = false;      // do not store datagrams
    int descriptor_flags = 0;  // result of F_GETFD

    std::vector<std::string> take_calls();
    Datagram take_datagram();

    int make(int family, int type, int protocol);
    bool owns(int fd) const { return fd >= first && fd < next_; }
    int control(int fd, int command, int argument);
    int option(int fd, int level, int name, const void* value, socklen_t length);
    ssize_t send(const Datagram& datagram);

    //  Returns the number of calls of malloc, operator new and the pool's malloc_ that this program has made.
    static long requests();

private:
    static constexpr int first = 1000;
    std::mutex mutex_;
    int next_ = first;
};

#endif
