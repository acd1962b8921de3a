/*  The minimum of a program that works like the service: it wakes ten times a second and lists its addresses every ten
 *  seconds, in plain C without allocations of its own. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <string.h>
#include <time.h>

static char list[4096];
static char last[4096];

static void list_addresses(void) {
    struct ifaddrs* first;
    char* next = list;
    if (getifaddrs(&first) != 0)
        return;
    for (const struct ifaddrs* entry = first; entry != NULL; entry = entry->ifa_next) {
        if (entry->ifa_addr == NULL || entry->ifa_addr->sa_family != AF_INET6)
            continue;
        if (next + INET6_ADDRSTRLEN + 1 > list + sizeof list)
            break;
        const struct sockaddr_in6* address = (const struct sockaddr_in6*)entry->ifa_addr;
        if (inet_ntop(AF_INET6, &address->sin6_addr, next, INET6_ADDRSTRLEN) != NULL)
            next += strlen(next);
        *next++ = ',';
    }
    *next = '\0';
    freeifaddrs(first);
}

int main(void) {
    time_t last_time = 0;
    for (;;) {
        const struct timespec pause = {0, 100000000};
        nanosleep(&pause, NULL);
        const time_t now = time(NULL);
        if (now - last_time < 10)
            continue;
        last_time = now;
        list_addresses();
        if (strcmp(list, last) != 0)
            strcpy(last, list);
    }
}
