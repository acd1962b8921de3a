//  The TLS connection, with servers of the test on loopback. Certificates are made at run time.
#include "net/tls_stream.h"

#include "open_tls_support.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <openssl/err.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

thread_local int failSend, failReceive, failSocket;
std::string systemFolder;               // result of X509_get_default_cert_dir; empty: the real one
thread_local bool neverPauses = false;  // recv waits until input is available
thread_local int clockStep = -1;        // ms by which each call of clock_gettime moves the clock; below 0: real clock

//  Number of allocations by OpenSSL on this thread up to the one that fails; 0 or below 0: none fails.
thread_local long allocationsLeft = -1;

bool memoryFails() {
    return allocationsLeft > 0 && --allocationsLeft == 0;
}
void* allocate(std::size_t size, const char*, int) {
    return memoryFails() ? nullptr : std::malloc(size);
}
void* reallocate(void* block, std::size_t size, const char*, int) {
    return memoryFails() ? nullptr : std::realloc(block, size);
}
void release(void* block, const char*, int) {
    std::free(block);
}
const bool memoryIsWatched = CRYPTO_set_mem_functions(allocate, reallocate, release) == 1;

thread_local const SSL* failed = nullptr;  // the last connection on which a call ended with a fatal error
thread_local int readsAfterFailure = 0;    // calls of SSL_read_ex on such a connection

thread_local int sends = 0;             // calls of send
thread_local bool unconfirmed = false;  // the server has not confirmed all bytes

bool fails(int& error) {
    if (error == 0)
        return false;
    errno = std::exchange(error, 0);
    return true;
}

}  // namespace

extern "C" {
int __real_socket(int, int, int);
int __wrap_socket(int family, int type, int protocol) {
    return fails(failSocket) ? -1 : __real_socket(family, type, protocol);
}
ssize_t __real_send(int, const void*, std::size_t, int);
ssize_t __wrap_send(int descriptor, const void* bytes, std::size_t count, int flags) {
    EXPECT_NE(flags & MSG_NOSIGNAL, 0);
    ++sends;
    return fails(failSend) ? -1 : __real_send(descriptor, bytes, count, flags);
}
int __real_ioctl(int, unsigned long, ...);
int __wrap_ioctl(int descriptor, unsigned long request, int* bytes) {
    if (request != SIOCOUTQ || !unconfirmed)
        return __real_ioctl(descriptor, request, bytes);
    *bytes = 1;
    return 0;
}
ssize_t __real_recv(int, void*, std::size_t, int);
ssize_t __wrap_recv(int descriptor, void* bytes, std::size_t count, int flags) {
    pollfd input{descriptor, POLLIN, 0};
    if (neverPauses)
        poll(&input, 1, -1);
    return fails(failReceive) ? -1 : __real_recv(descriptor, bytes, count, flags);
}
int __real_SSL_get_error(const SSL*, int);
int __wrap_SSL_get_error(const SSL* tls, int result) {
    const int error = __real_SSL_get_error(tls, result);
    failed = error == SSL_ERROR_SSL || error == SSL_ERROR_SYSCALL ? tls : failed;
    return error;
}
int __real_SSL_read_ex(SSL*, void*, std::size_t, std::size_t*);
int __wrap_SSL_read_ex(SSL* tls, void* bytes, std::size_t count, std::size_t* taken) {
    readsAfterFailure += tls == failed ? 1 : 0;
    return __real_SSL_read_ex(tls, bytes, count, taken);
}
const char* __real_X509_get_default_cert_dir();
const char* __wrap_X509_get_default_cert_dir() {
    return systemFolder.empty() ? __real_X509_get_default_cert_dir() : systemFolder.c_str();
}
int __real_clock_gettime(clockid_t, timespec*);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    static thread_local std::int64_t time = 1000000;
    if (clockStep < 0)
        return __real_clock_gettime(clock, now);
    time += clockStep;
    *now = {time / 1000, time % 1000 * 1000000};
    return 0;
}
}

namespace {

using namespace opentest;
using namespace rdbopen;

class EndingWaiter : public Waiter {
public:
    explicit EndingWaiter(Result result) : result_(result) {}
    //  A wait for input returns `result_` at once. Waits for room (POLLOUT) are real, so that connecting works.
    Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override {
        return events == POLLOUT ? plainWaiter.wait(descriptor, events, until) : result_;
    }

private:
    Result result_;
};

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::chrono::milliseconds soon() {
    return monotonicNow() + std::chrono::seconds(60);
}

bool readable(int descriptor) {
    pollfd waited{descriptor, POLLIN, 0};
    return poll(&waited, 1, 0) == 1;
}

class OpenTlsStream : public testing::Test {
protected:
    OpenTlsStream() {
        EXPECT_TRUE(prepareTls().ok());
        writeText(file("ca"), pki().authority.certificatePem());
        writeText(file("cert"), pki().client.certificatePem());
        writeText(file("key"), pki().client.keyPem());
        settings = {.name = "server.test", .authorities = file("ca"), .certificate = {}, .key = {}, .protocol = {}};
    }
    ~OpenTlsStream() override {
        failSend = failReceive = failSocket = 0;
        clockStep = -1;
        neverPauses = false;
        systemFolder.clear();
    }
    std::string file(const std::string& name) const { return folder.file(name); }
    void useClientCertificate() {
        settings.certificate = file("cert");
        settings.key = file("key");
    }
    std::string connect(const ServerAddress& address, const Waiter& waiter = plainWaiter) {
        stream = std::make_unique<TlsStream>(settings);
        return stream->connect(address, waiter, soon()).reason;
    }
    std::string connect(const TlsServer& server) { return connect(server.address()); }
    std::string connectTo(TlsServer::Options options) {
        const TlsServer server(std::move(options));
        return connect(server);
    }
    std::string send(std::string_view text) { return stream->send(bytesOf(text), plainWaiter, soon()).reason; }
    std::string receive(std::size_t count, std::string& text) {
        std::vector<std::uint8_t> bytes(count);
        std::string reason = stream->receive(bytes, plainWaiter, soon()).reason;
        text.assign(bytes.begin(), bytes.end());
        return reason;
    }
    //  Sends text and receives the echo. Returns the reason of a failure, or empty.
    std::string exchange(const std::string& text = "hello") {
        if (std::string reason = send(text); !reason.empty())
            return reason;
        std::string echo;
        std::string reason = receive(text.size(), echo);
        return !reason.empty() || echo == text ? reason : "another text: " + echo;
    }

    const Folder folder;
    TlsSettings settings;
    std::unique_ptr<TlsStream> stream;
};

//  -- a connection ----------------------------------------------------------------------------------------------------

TEST_F(OpenTlsStream, BytesGoBothWaysInBothVersions) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const TlsServer server({.minVersion = version, .maxVersion = version});
        ASSERT_EQ(connect(server), "");
        EXPECT_EQ(exchange(), "");
        EXPECT_EQ(exchange(std::string(200000, 'x')), "");
        stream->close();
        EXPECT_EQ(stream->descriptor(), -1);
    }
}

TEST_F(OpenTlsStream, AServerThatSendsSingleBytesWorks) {
    const TlsServer server({.pieces = 1});
    ASSERT_EQ(connect(server), "");
    EXPECT_EQ(exchange(), "");
}

TEST_F(OpenTlsStream, TheDescriptorIsNonBlockingAndClosedOnExec) {
    const TlsServer server;
    ASSERT_EQ(connect(server), "");
    EXPECT_NE(fcntl(stream->descriptor(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(stream->descriptor(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(OpenTlsStream, AsksForTheNameAndOffersTheProtocol) {
    settings.protocol = "dot";
    TlsServer server;
    ASSERT_EQ(connect(server), "");
    stream->close();
    EXPECT_TRUE(eventually([&] { return server.askedName() == "server.test"; }));
    EXPECT_EQ(server.offered(), "dot");
}

TEST_F(OpenTlsStream, AnAddressIsCheckedAndNotAskedFor) {
    settings.name = "127.0.0.1";
    TlsServer server;
    ASSERT_EQ(connect(server), "");
    stream->close();
    settings.name = "127.0.0.2";
    EXPECT_EQ(connect(server), "the server's certificate is not for 127.0.0.2 (name=NAME)");
    EXPECT_EQ(server.askedName(), "");
}

TEST_F(OpenTlsStream, TheClientCertificateIsShown) {
    useClientCertificate();
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const TlsServer server({.clientsIssuer = &pki().authority, .maxVersion = version});
        ASSERT_EQ(connect(server), "");
        EXPECT_EQ(exchange(), "");
    }
}

TEST_F(OpenTlsStream, AChainOfCertificatesIsFollowed) {
    const Identity intermediate =
        certify({.subject = "intermediate", .names = "", .usage = "", .authority = true}, &pki().authority);
    const Identity server = certify({}, &intermediate);
    EXPECT_EQ(connectTo({.identity = &server, .intermediate = &intermediate}), "");
    EXPECT_EQ(connectTo({.identity = &server}), "the server's certificate is issued by an unknown authority (ca=FILE)");
    const Identity old =
        certify({.subject = "old", .names = "", .usage = "", .authority = true, .to = -1}, &pki().authority);
    const Identity below = certify({}, &old);
    EXPECT_EQ(connectTo({.identity = &below, .intermediate = &old}),
              "a certificate of an authority of the server has expired");
}

//  -- the server's certificate ----------------------------------------------------------------------------------------

TEST_F(OpenTlsStream, ABadCertificateIsNamed) {
    const Identity stranger = certify({.subject = "stranger", .names = "", .usage = "", .authority = true}, nullptr);
    const struct {
        Contents contents;
        const Identity* issuer;
        std::string reason;
    } rows[] = {
        {{.from = -7200, .to = -3600}, &pki().authority, "the server's certificate has expired"},
        {{.from = 3600}, &pki().authority, "the server's certificate is not valid yet, by the clock of this machine"},
        {{.names = "DNS:other.test"}, &pki().authority, "the server's certificate is not for server.test (name=NAME)"},
        {{.subject = "server.test", .names = ""},
         &pki().authority,
         "the server's certificate is not for server.test (name=NAME)"},
        {{}, &stranger, "the server's certificate is issued by an unknown authority (ca=FILE)"},
        {{}, nullptr, "the server's certificate is self-signed and not one of the authorities (ca=FILE)"},
        {{.usage = "clientAuth"}, &pki().authority, "the server's certificate is not for servers"},
        {{.weak = true}, &pki().authority, "the server's certificate has a key that is too short"},
    };
    for (const auto& row : rows) {
        const Identity identity = certify(row.contents, row.issuer);
        const TlsServer server({.identity = &identity});
        EXPECT_EQ(connect(server), row.reason);
        EXPECT_EQ(stream->descriptor(), -1);
    }
    const Identity below = certify({}, &stranger);
    EXPECT_EQ(connectTo({.identity = &below, .intermediate = &stranger}),
              "a certificate of an authority of the server is not one of the known authorities (ca=FILE)");
}

TEST_F(OpenTlsStream, AnAsteriskStandsForAWholeLabel) {
    settings.name = "server.example.test";
    const Identity whole = certify({.names = "DNS:*.example.test"}, &pki().authority);
    EXPECT_EQ(connectTo({.identity = &whole}), "");
    const Identity part = certify({.names = "DNS:s*.example.test"}, &pki().authority);
    EXPECT_EQ(connectTo({.identity = &part}), "the server's certificate is not for server.example.test (name=NAME)");
}

TEST_F(OpenTlsStream, ACertificateThatSignedItselfMayBeAnAuthority) {
    const Identity self = certify({}, nullptr);
    writeText(file("ca"), self.certificatePem());
    EXPECT_EQ(connectTo({.identity = &self}), "");
}

TEST_F(OpenTlsStream, TheAuthoritiesOfTheSystemAreUsedWithoutAFile) {
    settings.authorities.clear();
    const TlsServer server;
    EXPECT_EQ(connect(server), "the server's certificate is issued by an unknown authority (ca=FILE)");
    char name[16];
    const unsigned long hash = X509_subject_name_hash(pki().authority.certificate.get());
    snprintf(name, sizeof name, "%08lx.0", hash);
    std::filesystem::rename(file("ca"), file(name));
    systemFolder = folder.path();
    EXPECT_EQ(connect(server), "");
}

//  Otherwise, whoever can set the environment of the service could choose the authorities that it trusts.
TEST_F(OpenTlsStream, TheVariableSslCertFileChoosesNoAuthorities) {
    settings.authorities.clear();
    setenv("SSL_CERT_FILE", file("ca").c_str(), 1);
    const TlsServer server;
    EXPECT_EQ(connect(server), "the server's certificate is issued by an unknown authority (ca=FILE)");
    unsetenv("SSL_CERT_FILE");
}

//  -- the server's refusals -------------------------------------------------------------------------------------------

TEST_F(OpenTlsStream, AServerThatRequiresACertificateIsNamed) {
    const TlsServer server({.clientsIssuer = &pki().authority});
    ASSERT_EQ(connect(server), "");  // TLS 1.3: the server answers after the client regards the handshake as complete
    EXPECT_EQ(exchange(), "the server requires a client certificate (cert=FILE and key=FILE)");
    EXPECT_EQ(connectTo({.clientsIssuer = &pki().authority, .maxVersion = TLS1_2_VERSION}),
              "the server refused the handshake: it requires a client certificate (cert=FILE and key=FILE), or has no "
              "algorithm in common");
}

TEST_F(OpenTlsStream, ARefusedClientCertificateIsNamed) {
    useClientCertificate();
    const Identity stranger = certify({.subject = "stranger", .names = "", .usage = "", .authority = true}, nullptr);
    const std::string unknown = "the server does not know the authority of the client certificate";
    EXPECT_EQ(connectTo({.clientsIssuer = &stranger, .maxVersion = TLS1_2_VERSION}), unknown);
    const TlsServer server({.clientsIssuer = &stranger});
    ASSERT_EQ(connect(server), "");
    EXPECT_EQ(exchange(), unknown);
    const Identity old = certify({.to = -1}, &pki().authority);
    writeText(file("cert"), old.certificatePem());
    writeText(file("key"), old.keyPem());
    EXPECT_EQ(connectTo({.clientsIssuer = &pki().authority, .maxVersion = TLS1_2_VERSION}),
              "the server refused the client certificate: it has expired");
}

//  The server may have closed the connection before it receives the request.
TEST_F(OpenTlsStream, ARefusalIsReadAfterAFailedRequest) {
    const TlsServer server({.clientsIssuer = &pki().authority});
    ASSERT_EQ(connect(server), "");
    ASSERT_TRUE(eventually([&] { return readable(stream->descriptor()); }));
    failed = nullptr;
    readsAfterFailure = 0;
    failSend = EPIPE;
    EXPECT_EQ(send("x"), "the server requires a client certificate (cert=FILE and key=FILE)");
    EXPECT_NE(failed, nullptr);
    EXPECT_EQ(readsAfterFailure, 0) << "SSL_get_error(3) forbids this";
}

TEST_F(OpenTlsStream, AnOldProtocolIsRefused) {
    EXPECT_EQ(connectTo({.minVersion = TLS1_VERSION, .maxVersion = TLS1_1_VERSION}),
              "the server speaks neither TLS 1.2 nor TLS 1.3");
}

TEST_F(OpenTlsStream, AServerWithoutTlsIsNamed) {
    for (const char* text : {"-ERR unknown command\r\n", "HTTP/1.1 400 Bad Request\r\n\r\n", "\x01"}) {
        const PlainServer server(text);
        EXPECT_EQ(connect(server.address()), "the server does not speak TLS at this port") << text;
    }
    const PlainServer closing("");
    EXPECT_EQ(connect(closing.address()),
              "the server closed the connection before its first answer, as servers do that do "
              "not speak TLS at this port");
    const PlainServer silent("", true);
    EXPECT_EQ(connect(silent.address(), EndingWaiter(Waiter::Result::timedOut)),
              "the server does not answer in time: it may not speak TLS at this port");
}

//  -- files -----------------------------------------------------------------------------------------------------------

TEST_F(OpenTlsStream, AFileThatCannotBeUsedIsNamed) {
    useClientCertificate();
    writeText(file("text"), "This is no certificate.\n");
    writeText(file("cut"), pki().server.certificatePem().substr(0, 200));
    writeText(file("broken"), "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    writeText(file("encrypted"), pki().client.keyPem("word"));
    writeText(file("otherkey"), pki().server.keyPem());
    const std::string missing = " cannot be read: " + errorText(ENOENT);
    const struct {
        std::string TlsSettings::*option;
        std::string name;
        std::string reason;  // after the path
    } rows[] = {
        {&TlsSettings::authorities, "absent", missing},
        {&TlsSettings::authorities, "", " cannot be read: " + errorText(EINVAL)},
        {&TlsSettings::authorities, "text", " holds no certificate in PEM form"},
        {&TlsSettings::authorities, "key", " holds no certificate in PEM form"},
        {&TlsSettings::authorities, "cut", " holds a certificate that cannot be read"},
        {&TlsSettings::authorities, "broken", " holds a certificate that cannot be read"},
        {&TlsSettings::certificate, "absent", missing},
        {&TlsSettings::certificate, "text", " holds no certificate in PEM form"},
        {&TlsSettings::key, "absent", missing},
        {&TlsSettings::key, "cert", " holds no private key in PEM form"},
        {&TlsSettings::key, "encrypted", " holds a key that is encrypted with a password"},
        {&TlsSettings::key, "otherkey", " holds a key that does not belong to the certificate"},
    };
    const TlsServer server;
    for (const auto& row : rows) {
        const TlsSettings before = settings;
        settings.*row.option = file(row.name);
        const std::string option = row.option == &TlsSettings::authorities   ? "ca"
                                   : row.option == &TlsSettings::certificate ? "cert"
                                                                             : "key";
        EXPECT_EQ(connect(server), option + ": " + file(row.name) + row.reason);
        settings = before;
    }
    EXPECT_EQ(connect(server), "");
}

//  -- a connection that ends ------------------------------------------------------------------------------------------

//  In each run, the server closes the connection after one more byte; with TLS 1.2, after seven more bytes.
TEST_F(OpenTlsStream, AConnectionCutAnywhereFails) {
    for (const auto& [version, step] : {std::pair(TLS1_2_VERSION, 7), std::pair(TLS1_3_VERSION, 1)}) {
        std::size_t cut = 0;
        for (bool complete = false; !complete; cut += static_cast<std::size_t>(step)) {
            const TlsServer server({.maxVersion = version, .cutAfter = cut});
            std::string reason = connect(server);
            if (reason.empty())
                reason = exchange();
            complete = reason.empty();
            const bool named = reason.starts_with("the server closed the connection") ||
                               reason.starts_with("the connection was lost: ");
            ASSERT_TRUE(complete || (named && stream->endedByServer())) << cut << " " << reason;
        }
        EXPECT_GT(cut, 500U);
    }
}

TEST_F(OpenTlsStream, AnEndWithAndWithoutANoticeIsAnEnd) {
    std::string text;
    const TlsServer polite({.afterHandshake = [](SSL* tls) { SSL_shutdown(tls); }});
    ASSERT_EQ(connect(polite), "");
    EXPECT_EQ(receive(1, text), "the server closed the connection");
    EXPECT_TRUE(stream->endedByServer());
    auto rude = std::make_unique<TlsServer>();
    ASSERT_EQ(connect(*rude), "");
    ASSERT_EQ(exchange(), "");
    rude.reset();
    EXPECT_EQ(receive(1, text), "the server closed the connection");
    EXPECT_TRUE(stream->endedByServer());
}

TEST_F(OpenTlsStream, ALostConnectionReportsWhy) {
    const TlsServer server;
    std::string text;
    ASSERT_EQ(connect(server), "");
    failReceive = ETIMEDOUT;
    EXPECT_EQ(receive(1, text), "the connection was lost: " + errorText(ETIMEDOUT));
    EXPECT_FALSE(stream->endedByServer());
    ASSERT_EQ(connect(server), "");
    failReceive = ECONNRESET;
    EXPECT_EQ(receive(1, text), "the connection was lost: " + errorText(ECONNRESET));
    EXPECT_TRUE(stream->endedByServer());
    ASSERT_EQ(connect(server), "");
    failSend = EPIPE;
    EXPECT_EQ(send("x"), "the connection was lost: " + errorText(EPIPE));
}

TEST_F(OpenTlsStream, AnInterruptedCallIsRepeated) {
    const TlsServer server;
    ASSERT_EQ(connect(server), "");
    failSend = failReceive = EINTR;
    EXPECT_EQ(exchange(), "");
}

TEST_F(OpenTlsStream, AMissingDescriptorIsReported) {
    const TlsServer server;
    failSocket = EMFILE;
    EXPECT_EQ(connect(server), "no socket: " + errorText(EMFILE));
}

TEST_F(OpenTlsStream, AClosedHandleAndAWaitingCallEndTheHandshake) {
    const std::pair<Waiter::Result, std::string> rows[]{{Waiter::Result::closed, "the handle was closed"},
                                                        {Waiter::Result::callWaits, "a call waits"}};
    for (const auto& [result, reason] : rows) {
        const PlainServer silent("", true);
        EXPECT_EQ(connect(silent.address(), EndingWaiter(result)), reason);
        EXPECT_EQ(stream->descriptor(), -1);
    }
}

//  -- what the server sends beside data -------------------------------------------------------------------------------

//  Messages with new keys and tickets make the descriptor readable, but contain no data.
TEST_F(OpenTlsStream, NewKeysAndTicketsAreNoData) {
    const TlsServer server({.afterHandshake = [](SSL* tls) {
        SSL_new_session_ticket(tls);
        SSL_key_update(tls, SSL_KEY_UPDATE_REQUESTED);
        SSL_do_handshake(tls);
    }});
    ASSERT_EQ(connect(server), "");
    ASSERT_TRUE(eventually([&] { return readable(stream->descriptor()); }));
    std::uint8_t bytes[Stream::maxInput];
    const Result<std::size_t> taken = stream->take(bytes);
    EXPECT_EQ(taken.status().reason, "");
    EXPECT_EQ(*taken, 0U);
    EXPECT_EQ(exchange(), "");
    EXPECT_EQ(exchange(), "");
}

//  The server sends without a pause, so neither an empty socket nor a wait ends the call.
TEST_F(OpenTlsStream, AnEndlessStreamOfNewKeysEndsAtTheLimit) {
    const TlsServer server({.endless = true});
    ASSERT_EQ(connect(server), "");
    neverPauses = true;
    std::uint8_t bytes[Stream::maxInput];
    const Result<std::size_t> taken = stream->take(bytes);
    ASSERT_EQ(taken.status().reason, "");
    EXPECT_EQ(*taken, 0U);
    clockStep = 100;
    const auto until = monotonicNow() + std::chrono::seconds(5);
    EXPECT_EQ(stream->receive(bytes, readyWaiter, until).reason, "the server does not answer in time");
}

//  The waiter fails a wait for input, so send must wait for room.
TEST_F(OpenTlsStream, AFullSocketIsWaitedFor) {
    const TlsServer server;
    ASSERT_EQ(connect(server), "");
    failSend = EAGAIN;
    EXPECT_EQ(stream->send(bytesOf("x"), EndingWaiter(Waiter::Result::timedOut), soon()).reason, "");
}

TEST_F(OpenTlsStream, ClosingSendsANoticeUnlessARequestIsNotConfirmed) {
    const TlsServer server;
    ASSERT_EQ(connect(server), "");
    ASSERT_EQ(exchange(), "");
    sends = 0;
    stream->close();
    EXPECT_EQ(sends, 1);
    ASSERT_EQ(connect(server), "");
    ASSERT_EQ(exchange(), "");
    sends = 0;
    unconfirmed = true;
    stream->close();
    unconfirmed = false;
    EXPECT_EQ(sends, 0);
}

TEST_F(OpenTlsStream, ANewHandshakeIsNotBegun) {
    const TlsServer server({.maxVersion = TLS1_2_VERSION,
                            .afterHandshake =
                                [](SSL* tls) {
                                    SSL_renegotiate(tls);
                                    SSL_do_handshake(tls);
                                },
                            .answer = [](const std::string&) { return ""; }});
    ASSERT_EQ(connect(server), "");
    std::string text;
    const std::string reason = receive(1, text);
    EXPECT_TRUE(reason == "the server closed the connection" ||
                reason == "the server wants a new handshake, which is refused")
        << reason;
}

//  Bytes that were not taken must be visible to poll, because the worker notices them only by poll.
TEST_F(OpenTlsStream, BytesThatAreNotTakenAreVisibleToPoll) {
    const TlsServer server({.afterHandshake = [](SSL* tls) {
        SSL_write(tls, "first", 5);
        SSL_write(tls, "second", 6);
    }});
    ASSERT_EQ(connect(server), "");
    std::uint8_t bytes[Stream::maxInput];
    for (const std::size_t size : {5U, 6U}) {
        std::size_t taken = 0;
        while (taken == 0) {
            ASSERT_TRUE(eventually([&] { return readable(stream->descriptor()); }));
            taken = *stream->take(bytes);
        }
        EXPECT_EQ(taken, size);
    }
    EXPECT_FALSE(readable(stream->descriptor()));
}

//  -- memory ----------------------------------------------------------------------------------------------------------

//  Returns whether `reason` names the network or the server's behaviour as the cause.
bool namesTheConnection(const std::string& reason) {
    constexpr const char* starts[] = {
        "the connection was lost", "the server closed", "the server does not", "the server violates",
        "cannot be reached",       "cannot wait",       "another text"};
    return std::any_of(std::begin(starts), std::end(starts),
                       [&](const char* start) { return reason.starts_with(start); });
}

//  In each run, one allocation of OpenSSL on the client's thread fails: each of the first 100, and then every 37th.
//  OpenSSL reports some of these failures as faults of a file or of a certificate.
TEST_F(OpenTlsStream, WithoutMemoryItReportsNoLossOfTheConnectionAndWorksAgainLater) {
    ASSERT_TRUE(memoryIsWatched);
    useClientCertificate();
    const TlsServer server;
    ASSERT_EQ(connect(server), "");  // makes the allocations that OpenSSL keeps
    bool complete = false;
    int reported = 0;  // number of runs that report the lack of memory after the first message to the server
    for (long failing = 1; !complete; failing += failing < 100 ? 1 : 37) {
        allocationsLeft = failing;
        sends = 0;
        std::string reason = connect(server);
        if (reason.empty())
            reason = exchange();
        reported += sends > 0 && reason == "out of memory" ? 1 : 0;
        stream->close();
        complete = allocationsLeft > 0;
        allocationsLeft = -1;
        ASSERT_TRUE(!complete || reason.empty()) << reason;
        EXPECT_FALSE(namesTheConnection(reason)) << failing << ": " << reason;
    }
    EXPECT_GT(reported, 0);
    ASSERT_EQ(connect(server), "");
    EXPECT_EQ(exchange(), "");
}

//  -- OpenSSL ---------------------------------------------------------------------------------------------------------

//  Fails if OpenSSL cannot be used. If OpenSSL registered an exit handler, that handler would run before this one.
void tryTlsAtExit() {
    const TlsPointer<SSL_CTX> context{SSL_CTX_new(TLS_client_method())};
    _exit(context ? 0 : 1);
}

TEST(OpenTlsDeathTest, OpenSslWorksDuringExit) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::atexit(tryTlsAtExit);
            const bool done = prepareTls().ok();
            const TlsPointer<SSL_CTX> context{SSL_CTX_new(TLS_client_method())};
            std::exit(done && context ? 0 : 2);
        },
        testing::ExitedWithCode(0), "");
}

TEST(OpenTlsDeathTest, TheConfigurationOfOpenSslIsNotRead) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const Folder folder;
    writeText(folder.file("cnf"), "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n[c]\nMinProtocol = "
                                  "TLSv1.3\nMaxProtocol = TLSv1.1\n");
    setenv("OPENSSL_CONF", folder.file("cnf").c_str(), 1);
    EXPECT_EXIT(
        {
            const bool done = prepareTls().ok();
            const Result<TlsPointer<SSL_CTX>> context = makeTlsContext({});
            std::_Exit(done && SSL_CTX_get_max_proto_version(context->get()) == 0 ? 0 : 2);
        },
        testing::ExitedWithCode(0), "");
    unsetenv("OPENSSL_CONF");
}

}  // namespace
