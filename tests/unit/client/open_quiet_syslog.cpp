//  Prevents a test program from writing to the machine's syslog.
#include <sys/socket.h>

extern "C" ssize_t __wrap_sendto(int, const void*, size_t, int, const sockaddr*, socklen_t);
extern "C" ssize_t __wrap_sendto(int, const void*, size_t length, int, const sockaddr*, socklen_t) {
    return static_cast<ssize_t>(length);
}
