#include "net/tls_context.h"

#include "engine/blocked_signals.h"
#include "files/descriptor.h"

#include <openssl/err.h>
#include <openssl/pem.h>

namespace rdbopen {

namespace {

//  The file with all authorities of Debian has about 220 kB.
constexpr std::size_t maxFileSize = 4 << 20;

Status outOfMemory() {
    return backendFailed("out of memory");
}

//  The bytes of a PEM file. The destructor overwrites them, because they may be a key.
class PemFile {
public:
    explicit PemFile(const std::string& path) : text_(readRegularFile(path.c_str(), maxFileSize)) {
        if (text_.ok())
            bio_.reset(BIO_new_mem_buf(text_->data(), static_cast<int>(text_->size())));
    }
    PemFile(const PemFile&) = delete;
    PemFile& operator=(const PemFile&) = delete;
    ~PemFile() {
        if (text_.ok())
            OPENSSL_cleanse(text_->data(), text_->size());
    }

    //  Returns ok, or why the file cannot be read.
    Status status() const {
        if (!text_.ok())
            return failedTo("cannot be read", text_.status());
        return bio_ ? Status{} : outOfMemory();
    }
    BIO* bio() const noexcept { return bio_.get(); }

private:
    Result<std::string> text_;
    TlsPointer<BIO> bio_;
};

//  Without this function, OpenSSL would ask for the password of an encrypted file at the terminal.
int noPassword(char*, int, int, void* asked) {
    *static_cast<bool*>(asked) = true;
    return -1;
}

Status certificatesIn(const PemFile& file, Certificates& found) {
    if (Status failed = file.status(); !failed.ok())
        return failed;
    bool asked = false;
    ERR_clear_error();
    while (TlsPointer<X509> certificate{PEM_read_bio_X509(file.bio(), nullptr, noPassword, &asked)})
        found.push_back(std::move(certificate));
    const unsigned long error = ERR_peek_last_error();
    const bool atEnd = ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
    ERR_clear_error();
    if (!atEnd)
        return backendFailed("holds a certificate that cannot be read");
    return found.empty() ? backendFailed("holds no certificate in PEM form") : Status{};
}

Status keyIn(const PemFile& file, TlsPointer<EVP_PKEY>& key) {
    if (Status failed = file.status(); !failed.ok())
        return failed;
    bool asked = false;
    key.reset(PEM_read_bio_PrivateKey(file.bio(), nullptr, noPassword, &asked));
    ERR_clear_error();
    if (asked)
        return backendFailed("holds a key that is encrypted with a password");
    return key ? Status{} : backendFailed("holds no private key in PEM form");
}

Status setOptions(SSL_CTX* context) {
    constexpr int minSecurity = 2;  // at least 112 bits of security (SSL_CTX_set_security_level(3)), as in Debian
    SSL_CTX_set_security_level(context, minSecurity);
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    //  Released buffers save 34 kB of memory for an idle connection.
    SSL_CTX_set_mode(context,
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    return SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1 ? Status{} : outOfMemory();
}

//  OpenSSL reads no file of the folder in advance. When it verifies a certificate, it reads only the authorities of
//  this certificate.
Status trustSystem(SSL_CTX* context) {
    return SSL_CTX_load_verify_dir(context, X509_get_default_cert_dir()) == 1 ? Status{} : outOfMemory();
}

Status trustFile(SSL_CTX* context, const std::string& path) {
    const Result<Certificates> authorities = readCertificates(path);
    if (!authorities.ok())
        return failedTo("ca", authorities.status());
    for (const TlsPointer<X509>& authority : *authorities)
        if (X509_STORE_add_cert(SSL_CTX_get_cert_store(context), authority.get()) != 1)
            return outOfMemory();
    return {};
}

Status useCertificates(SSL_CTX* context, const std::string& path) {
    const Result<Certificates> chain = readCertificates(path);
    if (!chain.ok())
        return failedTo("cert", chain.status());
    if (SSL_CTX_use_certificate(context, chain->front().get()) != 1)
        return backendFailed("cert: " + path + " holds a certificate that is too weak or cannot be used");
    for (std::size_t i = 1; i < chain->size(); ++i)
        if (SSL_CTX_add1_chain_cert(context, (*chain)[i].get()) != 1)
            return backendFailed("cert: " + path + " holds an authority that is too weak or cannot be used");
    return {};
}

Status useKey(SSL_CTX* context, const std::string& path) {
    const Result<TlsPointer<EVP_PKEY>> key = readPrivateKey(path);
    if (!key.ok())
        return failedTo("key", key.status());
    if (SSL_CTX_use_PrivateKey(context, key->get()) != 1)
        return backendFailed("key: " + path + " holds a key that does not belong to the certificate");
    return {};
}

Status fillContext(SSL_CTX* context, const TlsSettings& settings) {
    Status status = setOptions(context);
    if (status.ok())
        status = settings.authorities.empty() ? trustSystem(context) : trustFile(context, settings.authorities);
    if (status.ok() && !settings.certificate.empty())
        status = useCertificates(context, settings.certificate);
    if (status.ok() && !settings.key.empty())
        status = useKey(context, settings.key);
    return status;
}

}  // namespace

Status prepareTls() {
    const BlockedSignals blocked;
    const bool done = OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
    return done ? Status{} : Status{errorNoResources, "TLS cannot be initialised"};
}

Result<Certificates> readCertificates(const std::string& path) {
    Certificates found;
    const PemFile file(path);
    if (Status failed = certificatesIn(file, found); !failed.ok())
        return backendFailed(path + " " + failed.reason);
    return found;
}

Result<TlsPointer<EVP_PKEY>> readPrivateKey(const std::string& path) {
    TlsPointer<EVP_PKEY> key;
    const PemFile file(path);
    if (Status failed = keyIn(file, key); !failed.ok())
        return backendFailed(path + " " + failed.reason);
    return key;
}

Result<TlsPointer<SSL_CTX>> makeTlsContext(const TlsSettings& settings) {
    TlsPointer<SSL_CTX> context{SSL_CTX_new(TLS_client_method())};
    Status status = context ? fillContext(context.get(), settings) : outOfMemory();
    ERR_clear_error();
    if (!status.ok())
        return status;
    return context;
}

}  // namespace rdbopen
