#include "open_tls_support.h"

#include <csignal>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace opentest {

namespace {

void addExtension(X509* certificate, X509* issuer, int kind, const std::string& text) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, text.c_str());
    if (extension == nullptr)
        abort();
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

std::string textOf(BIO* bio) {
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(bio, &bytes);
    return std::string(bytes, static_cast<std::size_t>(size));
}

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

rdbopen::ServerAddress addressOf(std::uint16_t port) {
    const sockaddr_in place = loopback(port);
    rdbopen::ServerAddress address{};
    address.length = sizeof place;
    std::memcpy(&address.bytes, &place, sizeof place);
    return address;
}

//  Listens on a port that the kernel chooses, and stores its number in `port`.
int listenOnLoopback(std::uint16_t& port) {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    bind(listener, reinterpret_cast<sockaddr*>(&address), length);
    listen(listener, 64);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return listener;
}

int connectTo(std::uint16_t port) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return descriptor;
}

rdbopen::TlsPointer<SSL_CTX> serverContext(const TlsServer::Options& options) {
    rdbopen::TlsPointer<SSL_CTX> context{SSL_CTX_new(TLS_server_method())};
    const Identity& identity = options.identity == nullptr ? pki().server : *options.identity;
    SSL_CTX_set_security_level(context.get(), 0);
    SSL_CTX_set_min_proto_version(context.get(), options.minVersion);
    SSL_CTX_set_max_proto_version(context.get(), options.maxVersion);
    SSL_CTX_use_certificate(context.get(), identity.certificate.get());
    SSL_CTX_use_PrivateKey(context.get(), identity.key.get());
    if (options.intermediate != nullptr)
        SSL_CTX_add1_chain_cert(context.get(), options.intermediate->certificate.get());
    if (options.clientsIssuer != nullptr) {
        X509_STORE_add_cert(SSL_CTX_get_cert_store(context.get()), options.clientsIssuer->certificate.get());
        SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    return context;
}

}  // namespace

std::string Identity::certificatePem() const {
    const rdbopen::TlsPointer<BIO> bio{BIO_new(BIO_s_mem())};
    PEM_write_bio_X509(bio.get(), certificate.get());
    return textOf(bio.get());
}

std::string Identity::keyPem(const char* password) const {
    const rdbopen::TlsPointer<BIO> bio{BIO_new(BIO_s_mem())};
    const std::string word = password == nullptr ? "" : password;
    PEM_write_bio_PrivateKey(bio.get(), key.get(), password == nullptr ? nullptr : EVP_aes_128_cbc(),
                             reinterpret_cast<const unsigned char*>(word.data()), static_cast<int>(word.size()),
                             nullptr, nullptr);
    return textOf(bio.get());
}

Identity certify(const Contents& contents, const Identity* issuer) {
    static std::atomic<long> serial{1};
    Identity made;
    made.key.reset(contents.weak ? EVP_RSA_gen(1024) : EVP_EC_gen("P-256"));
    made.certificate.reset(X509_new());
    X509* const certificate = made.certificate.get();
    X509* const issuers = issuer == nullptr ? certificate : issuer->certificate.get();
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate), contents.from);
    X509_gmtime_adj(X509_getm_notAfter(certificate), contents.to);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(contents.subject.c_str()), -1, -1, 0);
    X509_set_issuer_name(certificate, X509_get_subject_name(issuers));
    X509_set_pubkey(certificate, made.key.get());
    addExtension(certificate, issuers, NID_basic_constraints, contents.authority ? "critical,CA:TRUE" : "CA:FALSE");
    if (!contents.names.empty())
        addExtension(certificate, issuers, NID_subject_alt_name, contents.names);
    if (!contents.usage.empty())
        addExtension(certificate, issuers, NID_ext_key_usage, contents.usage);
    X509_sign(certificate, issuer == nullptr ? made.key.get() : issuer->key.get(), EVP_sha256());
    return made;
}

const Pki& pki() {
    static const Pki made;
    return made;
}

//  Serves one client until the client or the server ends.
class TlsServer::Connection {
public:
    Connection(const TlsServer& server, int descriptor)
        : options_(server.options_), stop_(server.stop_[0]), descriptor_(descriptor),
          upstream_(options_.upstream == 0 ? -1 : connectTo(options_.upstream)), tls_(SSL_new(server.context_.get())),
          in_(BIO_new(BIO_s_mem())), out_(BIO_new(BIO_s_mem())) {
        BIO_set_mem_eof_return(in_, -1);
        SSL_set_bio(tls_.get(), in_, out_);
        SSL_set_accept_state(tls_.get());
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        close(descriptor_);
        if (upstream_ >= 0)
            close(upstream_);
    }

    void serve() {
        while (advance() && flush() && wait())
            ;
    }
    SSL* tls() const noexcept { return tls_.get(); }

private:
    //  Does what is possible with the input so far. Returns false when the connection is to be closed.
    bool advance() {
        if (SSL_is_init_finished(tls_.get()) == 0) {
            const int done = SSL_do_handshake(tls_.get());
            if (done != 1 && SSL_get_error(tls_.get(), done) != SSL_ERROR_WANT_READ) {
                flush();
                return false;
            }
            if (done != 1)
                return true;
        }
        if (options_.afterHandshake && !std::exchange(announced_, true))
            options_.afterHandshake(tls_.get());
        if (options_.endless)
            SSL_key_update(tls_.get(), SSL_KEY_UPDATE_NOT_REQUESTED);
        char text[16384];
        int size = 0;
        while ((size = SSL_read(tls_.get(), text, sizeof text)) > 0)
            answer(std::string(text, static_cast<std::size_t>(size)));
        if (options_.endless)
            SSL_do_handshake(tls_.get());
        return SSL_get_error(tls_.get(), size) == SSL_ERROR_WANT_READ;
    }
    void answer(const std::string& text) {
        if (upstream_ >= 0) {
            [[maybe_unused]] const ssize_t written = write(upstream_, text.data(), text.size());
            return;
        }
        const std::string reply = options_.answer ? options_.answer(text) : text;
        if (!reply.empty())
            SSL_write(tls_.get(), reply.data(), static_cast<int>(reply.size()));
    }
    bool flush() {
        char bytes[65536];
        for (int size = 0; (size = BIO_read(out_, bytes, sizeof bytes)) > 0;)
            for (int done = 0; done < size;) {
                const std::size_t left = std::min(options_.cutAfter - sent_, options_.pieces);
                const std::size_t count = std::min(static_cast<std::size_t>(size - done), left);
                const ssize_t written = count == 0 ? 0 : write(descriptor_, bytes + done, count);
                if (written <= 0)
                    return false;
                done += static_cast<int>(written);
                sent_ += static_cast<std::size_t>(written);
            }
        return sent_ < options_.cutAfter;
    }
    bool wait() {
        pollfd waited[]{{stop_, POLLIN, 0}, {descriptor_, POLLIN, 0}, {upstream_, POLLIN, 0}};
        poll(waited, 3, options_.endless && SSL_is_init_finished(tls_.get()) != 0 ? 0 : -1);
        if (waited[0].revents != 0)
            return false;
        char bytes[16384];
        if (waited[1].revents != 0) {
            const ssize_t taken = read(descriptor_, bytes, sizeof bytes);
            if (taken <= 0)
                return false;
            BIO_write(in_, bytes, static_cast<int>(taken));
        }
        if (waited[2].revents != 0 && SSL_is_init_finished(tls_.get()) != 0) {
            const ssize_t taken = read(upstream_, bytes, sizeof bytes);
            if (taken <= 0) {
                SSL_shutdown(tls_.get());
                flush();
                return false;
            }
            SSL_write(tls_.get(), bytes, static_cast<int>(taken));
        }
        return true;
    }

    const Options& options_;
    const int stop_;
    const int descriptor_;
    const int upstream_;
    rdbopen::TlsPointer<SSL> tls_;
    BIO* in_;   // owned by tls_
    BIO* out_;  // owned by tls_
    std::size_t sent_ = 0;
    bool announced_ = false;
};

TlsServer::TlsServer(Options options) : options_(std::move(options)), context_(serverContext(options_)) {
    SSL_CTX_set_alpn_select_cb(
        context_.get(),
        [](SSL*, const unsigned char** chosen, unsigned char* length, const unsigned char* offer, unsigned,
           void* self) {
            auto& server = *static_cast<TlsServer*>(self);
            const std::lock_guard lock(server.mutex_);
            server.offered_.assign(reinterpret_cast<const char*>(offer) + 1, offer[0]);
            *chosen = offer + 1;
            *length = offer[0];
            return SSL_TLSEXT_ERR_OK;
        },
        this);
    listener_ = listenOnLoopback(port_);
    [[maybe_unused]] const int piped = pipe(stop_);
    //  This thread blocks all signals: they are for the test's threads, and a closed connection raises SIGPIPE.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TlsServer::~TlsServer() {
    close(stop_[1]);
    thread_.join();
    close(stop_[0]);
    close(listener_);
}

void TlsServer::run() {
    for (;;) {
        pollfd waited[]{{stop_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        poll(waited, 2, -1);
        if (waited[0].revents != 0)
            return;
        const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor < 0)
            continue;
        ++connections_;
        Connection connection(*this, descriptor);
        connection.serve();
        const char* const name = SSL_get_servername(connection.tls(), TLSEXT_NAMETYPE_host_name);
        const std::lock_guard lock(mutex_);
        askedName_ = name == nullptr ? "" : name;
    }
}

rdbopen::ServerAddress TlsServer::address() const {
    return addressOf(port_);
}

std::string TlsServer::askedName() const {
    const std::lock_guard lock(mutex_);
    return askedName_;
}

std::string TlsServer::offered() const {
    const std::lock_guard lock(mutex_);
    return offered_;
}

PlainServer::PlainServer(std::string text, bool silent) : listener_(listenOnLoopback(port_)) {
    thread_ = std::thread([this, text = std::move(text), silent] {
        client_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (silent)
            return;
        char bytes[4096];
        [[maybe_unused]] auto moved = read(client_, bytes, sizeof bytes);
        moved = write(client_, text.data(), text.size());
        shutdown(client_, SHUT_WR);
    });
}

PlainServer::~PlainServer() {
    thread_.join();
    close(client_);
    close(listener_);
}

rdbopen::ServerAddress PlainServer::address() const {
    return addressOf(port_);
}

}  // namespace opentest
