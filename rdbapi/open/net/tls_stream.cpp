#include "net/tls_stream.h"

#include "engine/clock.h"
#include "net/tls_words.h"

#include <atomic>
#include <cerrno>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

namespace rdbopen {

namespace {

//  The time limit is checked after at most this number of reads. A record takes at least two reads.
constexpr int maxReads = 64;

//  Returns whether byte can be the first of a record (RFC 8446 section 5.1). The first byte is the type of the record:
//  change_cipher_spec, alert, handshake or application_data.
bool startsRecord(std::uint8_t byte) {
    return byte >= 20 && byte <= 23;
}

}  // namespace

//  -- the BIO: its functions must not throw, since their callers are C ------------------------------------------------

int TlsStream::readWire(BIO* bio, char* bytes, int size) {
    Wire& wire = *static_cast<Wire*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const bool mayRead = wire.readsLeft > 0;
    wire.readsLeft -= mayRead ? 1 : 0;
    const ssize_t taken = mayRead ? recv(wire.descriptor, bytes, static_cast<std::size_t>(size), 0) : -1;
    if (taken > 0) {
        wire.first = wire.heard ? wire.first : static_cast<std::uint8_t>(bytes[0]);
        wire.heard = true;
        return static_cast<int>(taken);
    }
    if (!mayRead || (taken < 0 && (errno == EAGAIN || errno == EINTR))) {
        BIO_set_retry_read(bio);
        return -1;
    }
    wire.ended = taken == 0 || errno == ECONNRESET;
    wire.error = taken == 0 ? 0 : errno;
    return -1;
}

//  Reports every failure of send(2) to OpenSSL as a lack of room: after a fatal error, OpenSSL would forbid the
//  SSL_read of refusalOr (SSL_get_error(3)). A failure other than EAGAIN and EINTR is stored in wire.error.
int TlsStream::writeWire(BIO* bio, const char* bytes, int size) {
    Wire& wire = *static_cast<Wire*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const ssize_t sent = ::send(wire.descriptor, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL);
    if (sent >= 0)
        return static_cast<int>(sent);
    BIO_set_retry_write(bio);
    if (errno != EAGAIN && errno != EINTR)
        wire.error = errno;
    return -1;
}

//  Returns 1 for a flush, since there is nothing to flush, and 0 for every other command, which is not supported.
long TlsStream::controlWire(BIO*, int command, long, void*) {
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

//  The returned object is never freed: a thread may use it while the process exits.
const BIO_METHOD* TlsStream::wireMethod() {
    static std::atomic<BIO_METHOD*> made{nullptr};
    if (made.load() != nullptr)
        return made.load();
    BIO_METHOD* const method = BIO_meth_new(BIO_TYPE_SOURCE_SINK, "addrpubd");
    if (method == nullptr)
        return nullptr;
    BIO_meth_set_read(method, readWire);
    BIO_meth_set_write(method, writeWire);
    BIO_meth_set_ctrl(method, controlWire);
    BIO_METHOD* other = nullptr;
    if (!made.compare_exchange_strong(other, method))
        BIO_meth_free(method);
    return made.load();
}

int TlsStream::noteDepth(int accepted, X509_STORE_CTX* store) {
    const auto* const tls =
        static_cast<const SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    if (accepted == 0)
        static_cast<Wire*>(SSL_get_app_data(tls))->refusedAt = X509_STORE_CTX_get_error_depth(store);
    return accepted;
}

//  -- the connection --------------------------------------------------------------------------------------------------

Status TlsStream::connect(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until) {
    close();
    Status status = open(address, waiter, until);
    if (!status.ok())
        close();
    return status;
}

Status TlsStream::open(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until) {
    name_ = settings_.name.empty() ? nameInCertificate(address.server.host) : settings_.name;
    if (Status failed = prepare(); !failed.ok())
        return failed;
    if (Status failed = tcp_.connect(address, waiter, until); !failed.ok())
        return failed;
    wire_ = {.descriptor = tcp_.descriptor()};
    return handshake(waiter, until);
}

Status TlsStream::prepare() {
    const Result<TlsPointer<SSL_CTX>> context = makeTlsContext(settings_);
    if (!context.ok())
        return context.status();
    tls_.reset(SSL_new(context->get()));
    BIO* const bio = tls_ && wireMethod() != nullptr ? BIO_new(wireMethod()) : nullptr;
    if (bio == nullptr)
        return backendFailed("out of memory");
    BIO_set_data(bio, &wire_);
    BIO_set_init(bio, 1);
    SSL_set_bio(tls_.get(), bio, bio);
    SSL_set_app_data(tls_.get(), &wire_);
    SSL_set_verify(tls_.get(), SSL_VERIFY_PEER, noteDepth);
    return setName() ? Status{} : backendFailed("out of memory");
}

//  A name that is only in the subject of a certificate is ignored (RFC 9525 section 2). A host name is also sent to the
//  server, an address is not (RFC 6066 section 3).
bool TlsStream::setName() {
    X509_VERIFY_PARAM* const check = SSL_get0_param(tls_.get());
    const char* const name = name_.c_str();
    X509_VERIFY_PARAM_set_hostflags(check, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
    const bool isAddress = X509_VERIFY_PARAM_set1_ip_asc(check, name) == 1;
    if (!isAddress &&
        (X509_VERIFY_PARAM_set1_host(check, name, 0) != 1 || SSL_set_tlsext_host_name(tls_.get(), name) != 1))
        return false;
    if (settings_.protocol.empty())
        return true;
    const std::string offer = static_cast<char>(settings_.protocol.size()) + settings_.protocol;
    return SSL_set_alpn_protos(tls_.get(), reinterpret_cast<const unsigned char*>(offer.data()),
                               static_cast<unsigned>(offer.size())) == 0;
}

Status TlsStream::handshake(const Waiter& waiter, std::chrono::milliseconds until) {
    Status status = complete([this] { return SSL_connect(tls_.get()); }, waiter, until);
    if (!status.ok() && wire_.ended && !wire_.heard)
        return backendFailed("the server closed the connection before its first answer, as servers do that do not "
                             "speak TLS at this port");
    return status;
}

//  Calls an OpenSSL function once. Returns done if its result is above 0; otherwise lacksInput, lacksRoom or failed.
template <class Call>
TlsStream::Step TlsStream::attempt(Call call) {
    ERR_clear_error();
    wire_.readsLeft = maxReads;
    const int result = call();
    if (result > 0)
        return Step::done;
    switch (SSL_get_error(tls_.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return Step::lacksInput;
    case SSL_ERROR_WANT_WRITE:
        if (wire_.error == 0)
            return Step::lacksRoom;
        break;
    case SSL_ERROR_ZERO_RETURN:
        wire_.ended = true;
        break;
    default:
        break;
    }
    broken_ = true;
    return Step::failed;
}

//  Repeats attempt until the call is done or has failed. After each attempt, waits for the input or room that the call
//  lacks. waitFor checks the time first: if the server sends without a pause, poll(2) never reports the time limit.
template <class Call>
Status TlsStream::complete(Call call, const Waiter& waiter, std::chrono::milliseconds until) {
    for (;;) {
        const Step step = attempt(call);
        if (step == Step::done)
            return {};
        if (step == Step::failed)
            return fault();
        const Waiter::Result waited = waitFor(step, waiter, until);
        if (waited == Waiter::Result::timedOut && !wire_.heard)
            return backendFailed("the server does not answer in time: it may not speak TLS at this port");
        if (waited != Waiter::Result::ready)
            return waitFailure(waited);
    }
}

Waiter::Result TlsStream::waitFor(Step lack, const Waiter& waiter, std::chrono::milliseconds until) const {
    if (monotonicNow() >= until)
        return Waiter::Result::timedOut;
    return waiter.wait(descriptor(), lack == Step::lacksRoom ? POLLOUT : POLLIN, until);
}

//  Returns why the last call failed. Uses the last error in OpenSSL's queue. The exception is a queue whose first error
//  is a lack of memory: this error has caused the others.
Status TlsStream::fault() {
    const unsigned long first = ERR_peek_error();
    const unsigned long error = ERR_GET_REASON(first) == ERR_R_MALLOC_FAILURE ? first : ERR_peek_last_error();
    ERR_clear_error();
    const bool refused = ERR_GET_LIB(error) == ERR_LIB_SSL && ERR_GET_REASON(error) == SSL_R_CERTIFICATE_VERIFY_FAILED;
    if (refused)
        return backendFailed(certificateWords(SSL_get_verify_result(tls_.get()), wire_.refusedAt, name_));
    if (wire_.heard && !startsRecord(wire_.first))
        return backendFailed("the server does not speak TLS at this port");
    if (wire_.error != 0)
        return failedTo("the connection was lost", systemFailure(wire_.error));
    if (wire_.ended)
        return backendFailed("the server closed the connection");
    return backendFailed(tlsErrorWords(error));
}

Status TlsStream::send(std::span<const std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until) {
    while (!bytes.empty()) {
        std::size_t sent = 0;
        const auto write = [&] { return SSL_write_ex(tls_.get(), bytes.data(), bytes.size(), &sent); };
        if (Status failed = complete(write, waiter, until); !failed.ok())
            return wire_.error == 0 ? failed : refusalOr(failed);
        bytes = bytes.subspan(sent);
    }
    return {};
}

//  A server that refuses the client certificate sends the reason and closes the connection. A send can then fail before
//  the reason was read. Returns the refusal if it has arrived, else failed.
Status TlsStream::refusalOr(const Status& failed) {
    wire_.error = 0;
    std::uint8_t rest[maxInput];
    const Result<std::size_t> taken = take(rest);
    return taken.ok() || wire_.ended || wire_.error != 0 ? failed : taken.status();
}

Result<std::size_t> TlsStream::take(std::span<std::uint8_t> bytes) {
    std::size_t taken = 0;
    lack_ = attempt([&] { return SSL_read_ex(tls_.get(), bytes.data(), bytes.size(), &taken); });
    if (lack_ == Step::failed)
        return fault();
    return taken;
}

Status TlsStream::waitForInput(const Waiter& waiter, std::chrono::milliseconds until) {
    const Waiter::Result waited = waitFor(lack_, waiter, until);
    return waited == Waiter::Result::ready ? Status{} : waitFailure(waited);
}

Status TlsStream::receive(std::span<std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until) {
    while (!bytes.empty()) {
        const Result<std::size_t> taken = take(bytes);
        if (!taken.ok())
            return taken.status();
        bytes = bytes.subspan(*taken);
        if (*taken > 0)
            continue;
        if (Status failed = waitForInput(waiter, until); !failed.ok())
            return failed;
    }
    return {};
}

//  After the handshake: if the server has not confirmed all bytes, resets the connection, which discards these bytes.
//  Otherwise sends close_notify (RFC 8446 section 6.1), unless a call has failed or the socket has no room.
//  Before the end of the handshake: lets the kernel send the last bytes. There is no request to discard, and the last
//  bytes inform the server why the handshake failed.
void TlsStream::close() noexcept {
    const bool established = tls_ && SSL_is_init_finished(tls_.get()) != 0;
    const bool withdraws = established && tcp_.hasUnconfirmed();
    if (established && !withdraws && !broken_)
        SSL_shutdown(tls_.get());
    tls_.reset();
    if (withdraws)
        tcp_.close();
    tcp_.finish();
    wire_.descriptor = -1;
    broken_ = false;
    ERR_clear_error();
}

}  // namespace rdbopen
