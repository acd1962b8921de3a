/*  The least work with the libraries of back ends: the floor of the idle service's memory with these back ends.
 *
 *      bare_libc       nothing but the C library
 *      bare_sqlite     WITH_SQLITE: a database with a log and one row, in the working directory
 *      bare_servers    WITH_SERVERS: one parser of Redis replies, one DNS message, one HMAC
 *
 *  Each is a program that does this work and then waits. With AS_CLIENT_LIBRARY the last two are part of a client
 *  library that does this work when it is loaded, and nothing afterwards (quiet_rdb.c).
 */
#include <stdlib.h>
#include <unistd.h>

#ifdef WITH_SQLITE
#include <sqlite3.h>

static int work(void) {
    sqlite3* database = NULL;
    if (sqlite3_open("bare.db", &database) != SQLITE_OK)
        return 0;
    const int result = sqlite3_exec(database,
                                    "PRAGMA journal_mode = WAL; CREATE TABLE value(id INTEGER PRIMARY KEY, text TEXT);"
                                    "INSERT INTO value VALUES(1, '2001:db8::1')",
                                    NULL, NULL, NULL);
    sqlite3_db_release_memory(database);
    return result == SQLITE_OK;
}
#elif defined(WITH_SERVERS)
#include <hiredis/hiredis.h>
#include <ldns/ldns.h>
#include <nettle/hmac.h>

static int work(void) {
    const uint8_t key[] = {1, 2, 3};
    uint8_t mac[SHA256_DIGEST_SIZE];
    struct hmac_sha256_ctx context;
    hmac_sha256_set_key(&context, sizeof key, key);
    hmac_sha256_update(&context, sizeof key, key);
    hmac_sha256_digest(&context, sizeof mac, mac);
    ldns_pkt* message = NULL;
    const uint8_t header[12] = {0};
    return redisReaderCreate() != NULL && ldns_wire2pkt(&message, header, sizeof header) == LDNS_STATUS_OK;
}
#else
static int work(void) {
    return 1;
}
#endif

#ifdef AS_CLIENT_LIBRARY
__attribute__((constructor)) static void start(void) {
    if (!work())
        abort();
}
#else
int main(void) {
    if (!work())
        return 1;
    for (;;)
        pause();
}
#endif
