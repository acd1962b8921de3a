//  Sockets that write down what is done to them. Each call can be made to fail.
//
//  The programs that use it are linked with --wrap for socket, setsockopt, fcntl, sendto, shutdown, close, inet_pton, malloc,
//  operator new and the pool's malloc_. One fake lives at a time; without one the calls are the real ones.
//
//  Threads: sendto may be called from any thread, all else from one.
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
    bool addressed = false;   // a destination was passed
    std::string destination;  // its bytes, as many as its length says
    socklen_t destination_length = 0;
};

class FakeSockets {
public:
    FakeSockets();
    ~FakeSockets();
    FakeSockets(const FakeSockets&) = delete;
    FakeSockets& operator=(const FakeSockets&) = delete;

    //  The calls in order, but for sendto, such as "socket 2 2 17" or "close 1000". Sockets are numbered from 1000 on.
    std::vector<std::string> calls;
    std::vector<Datagram> sent;

    bool socket_fails = false;
    bool setsockopt_fails = false;
    bool fcntl_fails = false;
    bool inet_pton_fails = false;
    bool sendto_fails = false;
    bool forgets = false;      // datagrams are not kept
    int descriptor_flags = 0;  // what F_GETFD gives

    std::vector<std::string> take_calls();
    Datagram take_datagram();

    int make(int family, int type, int protocol);
    bool owns(int fd) const { return fd >= first && fd < next_; }
    int control(int fd, int command, int argument);
    int option(int fd, int level, int name, const void* value, socklen_t length);
    ssize_t send(const Datagram& datagram);

    //  Requests for memory of this program so far, to the pool or to the C and C++ heaps.
    static long requests();

private:
    static constexpr int first = 1000;
    std::mutex mutex_;
    int next_ = first;
};

#endif
