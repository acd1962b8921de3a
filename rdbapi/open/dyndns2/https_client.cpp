#include "dyndns2/https_client.h"

#include "engine/blocked_signals.h"
#include "engine/clock.h"
#include "files/descriptor.h"
#include "net/stream.h"

#include <algorithm>
#include <curl/curl.h>
#include <memory>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/epoll.h>

namespace rdbopen {

namespace {

template <auto release>
struct FreeWith {
    template <class T>
    void operator()(T* object) const noexcept {
        release(object);
    }
};
using CurlTransfer = std::unique_ptr<CURL, FreeWith<curl_easy_cleanup>>;
using CurlTransfers = std::unique_ptr<CURLM, FreeWith<curl_multi_cleanup>>;
using CurlUrl = std::unique_ptr<CURLU, FreeWith<curl_url_cleanup>>;

Status outOfMemory() {
    return backendFailed("out of memory");
}

//  One transfer. libcurl reports the sockets of the transfer and the next deadline. An epoll descriptor contains all
//  sockets, so that the Waiter polls only one descriptor.
class Transfer {
public:
    Transfer() : sockets_(epoll_create1(EPOLL_CLOEXEC)), easy_(curl_easy_init()), multi_(curl_multi_init()) {}
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer() {
        if (added_)
            curl_multi_remove_handle(multi_.get(), easy_.get());
    }

    Status prepare(const HttpsRequest& request, bool onlyConnect);
    Status run(const Waiter& waiter, std::chrono::milliseconds until);
    HttpsAnswer answer();

private:
    static int onSocket(CURL*, curl_socket_t socket, int action, void* self, void* known);
    static int onTimer(CURLM*, long milliseconds, void* self);
    static std::size_t onBody(char* bytes, std::size_t, std::size_t size, void* self);
    static CURLcode onContext(CURL*, void* context, void*);

    bool setOptions(const HttpsRequest& request, bool onlyConnect);
    bool setUrl(const HttpsRequest& request);
    template <class Value>
    bool set(CURLoption option, Value value) {
        return curl_easy_setopt(easy_.get(), option, value) == CURLE_OK;
    }
    void handleDeadline();
    void handleSockets();
    Status result() const;

    const Descriptor sockets_;
    char error_[CURL_ERROR_SIZE] = "";
    std::string body_;
    std::chrono::milliseconds deadline_ = std::chrono::milliseconds::max();  // next of libcurl; max() if none
    int running_ = 0;
    bool added_ = false;
    CurlTransfer easy_;
    CurlTransfers multi_;  // destroyed before easy_, and both before the members that their callbacks use
};

int Transfer::onSocket(CURL*, curl_socket_t socket, int action, void* self, void* known) {
    auto* const transfer = static_cast<Transfer*>(self);
    epoll_event event{};
    event.data.fd = socket;
    event.events = ((action & CURL_POLL_IN) != 0 ? EPOLLIN : 0U) | ((action & CURL_POLL_OUT) != 0 ? EPOLLOUT : 0U);
    const int operation = action == CURL_POLL_REMOVE ? EPOLL_CTL_DEL : known == nullptr ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    curl_multi_assign(transfer->multi_.get(), socket, action == CURL_POLL_REMOVE ? nullptr : transfer);
    return epoll_ctl(transfer->sockets_.get(), operation, socket, &event) == 0 || action == CURL_POLL_REMOVE ? 0 : -1;
}

int Transfer::onTimer(CURLM*, long milliseconds, void* self) {
    static_cast<Transfer*>(self)->deadline_ =
        milliseconds < 0 ? std::chrono::milliseconds::max() : monotonicNow() + std::chrono::milliseconds(milliseconds);
    return 0;
}

//  An exception must not pass through libcurl.
std::size_t Transfer::onBody(char* bytes, std::size_t, std::size_t size, void* self) {
    std::string& body = static_cast<Transfer*>(self)->body_;
    try {
        body.append(bytes, std::min(size, HttpsAnswer::maxBody - body.size()));
    } catch (...) {
        return 0;
    }
    return size;
}

//  Removes the callback by which libcurl writes the keys of its connections to the file that the environment variable
//  SSLKEYLOGFILE names.
CURLcode Transfer::onContext(CURL*, void* context, void*) {
    SSL_CTX_set_keylog_callback(static_cast<SSL_CTX*>(context), nullptr);
    return CURLE_OK;
}

bool Transfer::setUrl(const HttpsRequest& request) {
    const CurlUrl url(curl_url());
    const bool address = request.server.host.find(':') != std::string::npos;
    const std::string host = address ? "[" + request.server.host + "]" : request.server.host;
    const auto part = [&url](CURLUPart name, const std::string& value, unsigned flags) {
        return curl_url_set(url.get(), name, value.c_str(), flags) == CURLUE_OK;
    };
    char* text = nullptr;
    const bool made = url && part(CURLUPART_SCHEME, "https", 0) && part(CURLUPART_HOST, host, 0) &&
                      part(CURLUPART_PORT, std::to_string(request.server.port), 0) &&
                      part(CURLUPART_PATH, request.path, CURLU_URLENCODE) && part(CURLUPART_QUERY, request.query, 0) &&
                      curl_url_get(url.get(), CURLUPART_URL, &text, 0) == CURLUE_OK && set(CURLOPT_URL, text);
    curl_free(text);
    return made;
}

bool Transfer::setOptions(const HttpsRequest& request, bool onlyConnect) {
    const char* const authorities = request.authorities.c_str();
    const bool own = !request.authorities.empty();
    return setUrl(request) && set(CURLOPT_PROTOCOLS_STR, "https") && set(CURLOPT_NOSIGNAL, 1L) &&
           set(CURLOPT_PROXY, "") && set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2)) &&
           set(CURLOPT_SSL_CTX_FUNCTION, onContext) && (!own || set(CURLOPT_CAINFO, authorities)) &&
           (!own || set(CURLOPT_CAPATH, static_cast<const char*>(nullptr))) &&
           set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1)) &&
           set(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC)) && set(CURLOPT_USERNAME, request.user.c_str()) &&
           set(CURLOPT_PASSWORD, request.password.c_str()) && set(CURLOPT_USERAGENT, "addrpubd/" RDBAPI_VERSION) &&
           set(CURLOPT_WRITEFUNCTION, onBody) && set(CURLOPT_WRITEDATA, this) && set(CURLOPT_ERRORBUFFER, error_) &&
           set(CURLOPT_CONNECT_ONLY, onlyConnect ? 1L : 0L);
}

Status Transfer::prepare(const HttpsRequest& request, bool onlyConnect) {
    if (sockets_.get() < 0)
        return systemFailure(errno);
    if (!easy_ || !multi_ || !setOptions(request, onlyConnect))
        return outOfMemory();
    CURLM* const multi = multi_.get();
    curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, onSocket);
    curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, onTimer);
    curl_multi_setopt(multi, CURLMOPT_TIMERDATA, this);
    added_ = curl_multi_add_handle(multi, easy_.get()) == CURLM_OK;
    return added_ ? Status{} : outOfMemory();
}

Status Transfer::run(const Waiter& waiter, std::chrono::milliseconds until) {
    handleDeadline();  // starts the transfer
    while (running_ > 0) {
        const bool atDeadline = deadline_ < until;
        const Waiter::Result waited = waiter.wait(sockets_.get(), POLLIN, atDeadline ? deadline_ : until);
        if (waited == Waiter::Result::ready)
            handleSockets();
        else if (waited == Waiter::Result::timedOut && atDeadline && !waiter.cancelled())
            handleDeadline();
        else
            return waitFailure(waited);
    }
    return result();
}

//  Clears deadline_ before the call: libcurl reports each deadline once, and the call may report the next one.
void Transfer::handleDeadline() {
    deadline_ = std::chrono::milliseconds::max();
    curl_multi_socket_action(multi_.get(), CURL_SOCKET_TIMEOUT, 0, &running_);
}

void Transfer::handleSockets() {
    epoll_event events[8];
    const int count = epoll_wait(sockets_.get(), events, static_cast<int>(std::size(events)), 0);
    for (int i = 0; i < count; ++i) {
        const bool failed = (events[i].events & (EPOLLERR | EPOLLHUP)) != 0;
        const int ready = ((events[i].events & EPOLLIN) != 0 ? CURL_CSELECT_IN : 0) |
                          ((events[i].events & EPOLLOUT) != 0 ? CURL_CSELECT_OUT : 0) | (failed ? CURL_CSELECT_ERR : 0);
        curl_multi_socket_action(multi_.get(), events[i].data.fd, ready, &running_);
    }
}

Status Transfer::result() const {
    int left = 0;
    const CURLMsg* const message = curl_multi_info_read(multi_.get(), &left);
    const CURLcode code = message == nullptr ? CURLE_RECV_ERROR : message->data.result;
    if (code == CURLE_OK)
        return {};
    return backendFailed(error_[0] != '\0' ? error_ : curl_easy_strerror(code));
}

HttpsAnswer Transfer::answer() {
    HttpsAnswer answer;
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &answer.status);
    answer.body = std::move(body_);
    return answer;
}

}  // namespace

Status prepareHttps() {
    static const CURLcode prepared = [] {
        const BlockedSignals blocked;
        return curl_global_init(CURL_GLOBAL_DEFAULT);
    }();
    return prepared == CURLE_OK ? Status{} : Status{errorNoResources, "libcurl cannot be initialized"};
}

Status testHttps(const HttpsRequest& request, const Waiter& waiter, std::chrono::milliseconds until) {
    Transfer transfer;
    Status status = transfer.prepare(request, true);
    return status.ok() ? transfer.run(waiter, until) : status;
}

Result<HttpsAnswer> getByHttps(const HttpsRequest& request, const Waiter& waiter, std::chrono::milliseconds until) {
    Transfer transfer;
    Status status = transfer.prepare(request, false);
    if (status.ok())
        status = transfer.run(waiter, until);
    if (!status.ok())
        return status;
    return transfer.answer();
}

}  // namespace rdbopen
