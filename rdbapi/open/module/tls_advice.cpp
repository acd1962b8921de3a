#include "module/tls_advice.h"

#include "net/tls_context.h"

#include <openssl/x509.h>
#include <sys/stat.h>

namespace rdbopen {

namespace {

constexpr int noticeDays = 14;

class Adviser {
public:
    Adviser(const UrlUse& use, std::vector<Advice>& advice) : name_(use.urlName), advice_(advice) {}

    void warn(std::string text) {
        text.insert(0, ": ").insert(0, name_);
        advice_.push_back({Setting::url, std::move(text)});
    }

    //  Warns only of the first certificate in the file that has expired or expires soon. A connection need not use all
    //  certificates of the file.
    void onExpiry(const std::string& option, const std::string& path) {
        const Result<Certificates> certificates = readCertificates(path);
        if (!certificates.ok())
            return;
        const std::string subject = option + ": " + path + " holds a certificate that ";
        for (const TlsPointer<X509>& certificate : *certificates)
            if (warnsOf(*certificate, subject))
                return;
    }

    void onKeyMode(const std::string& path) {
        struct stat file {};
        if (stat(path.c_str(), &file) == 0 && (file.st_mode & (S_IROTH | S_IWOTH)) != 0)
            warn("key: everybody can read or write the file " + path);
    }

private:
    bool warnsOf(const X509& certificate, const std::string& subject) {
        int days = 0;
        int seconds = 0;
        if (ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(&certificate)) != 1 || days >= noticeDays)
            return false;
        const bool expired = days < 0 || seconds < 0;
        warn(subject + (expired ? "has expired" : "expires in less than " + std::to_string(days + 1) + " days"));
        return true;
    }

    const std::string name_;
    std::vector<Advice>& advice_;
};

}  // namespace

//  If makeTlsContext fails, for example at a file that a connection could not use, its reason becomes a warning.
void adviseOnTls(const UrlUse& use, std::vector<Advice>& advice) {
    Url rest = use.url;
    const Result<TlsSettings> settings = takeTlsOptions(rest);
    if (!settings.ok() || !prepareTls().ok())
        return;
    Adviser adviser(use, advice);
    if (const Status failed = makeTlsContext(*settings).status(); !failed.ok())
        adviser.warn(failed.reason);
    if (!settings->authorities.empty())
        adviser.onExpiry("ca", settings->authorities);
    if (!settings->certificate.empty())
        adviser.onExpiry("cert", settings->certificate);
    if (!settings->key.empty())
        adviser.onKeyMode(settings->key);
}

}  // namespace rdbopen
