//  The back end redis with a simulated cluster, or with Sentinels and their master. The servers send the input, in
//  pieces that zero bytes separate: one piece for each wait. Before them, each login receives the right answers. Each
//  piece is also read as an answer to CLUSTER SLOTS, and the masters are compared with those that a second reader
//  finds. Scripts and ASKING must not be sent more often than the limit for redirections allows.
#include "backends.h"
#include "engine/clock.h"
#include "fuzz_input.h"
#include "redis/cluster_layout.h"
#include "redis/cluster_route.h"
#include "redis_model.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <memory>
#include <netdb.h>
#include <sys/socket.h>
#include <utility>

namespace {

using namespace rdbopen;

std::deque<std::string> pieces;  // each wait makes the first of them available
std::string available;
std::string sent;

//  A pause of the back end is a wait without a descriptor. Here it returns at once, before its time has passed, so the
//  request fails.
class PieceWaiter : public Waiter {
public:
    Result wait(int descriptor, short, std::chrono::milliseconds) const noexcept override {
        if (descriptor < 0 || pieces.empty())
            return Result::timedOut;
        available = std::move(pieces.front());
        pieces.pop_front();
        return Result::ready;
    }
};

constexpr PieceWaiter waiter;

std::size_t count(const std::string& part) {
    std::size_t found = 0;
    for (std::size_t at = sent.find(part); at != std::string::npos; at = sent.find(part, at + 1))
        ++found;
    return found;
}

bool canBeInUrl(const Server& server) {
    const std::string text = serverText(server);
    const Result<std::vector<Server>> parsed = parseServers(text, 0);
    return parsed.ok() && parsed->size() == 1 && parsed->front() == server && server.port != 0;
}

//  Returns HOST:PORT of `node` as the model reads it; empty if the back end cannot use this server.
std::string modelNode(const RedisReply& node) {
    const std::string host = node.elements[0].text.empty() ? "asked" : node.elements[0].text;
    const std::string port = std::to_string(node.elements[1].integer);
    const bool address = host.find(':') != std::string::npos;
    const auto legal = [&](char c) {
        return std::string_view("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_").find(c) !=
                   std::string_view::npos ||
               (address && (c == ':' || c == '%'));
    };
    const bool good = host.size() < 254 && std::all_of(host.begin(), host.end(), legal) &&
                      node.elements[1].integer > 0 && node.elements[1].integer < 65536;
    return good ? (address ? "[" + host + "]:" : host + ":") + port : std::string();
}

void compareLayouts(const std::string& bytes) {
    std::optional<RedisReply> reply = RedisModel(bytes).read();
    if (!reply)
        return;
    const Result<ClusterLayout> layout = readClusterSlots(*reply, {"asked", 1});
    if (!layout.ok())
        return;
    for (const Server& node : layout->nodes) {
        require(canBeInUrl(node), "a node can be in a url");
        require(std::count(layout->nodes.begin(), layout->nodes.end(), node) == 1, "each node is there once");
    }
    for (const RedisReply& range : reply->elements)
        for (const RedisReply* end : {&range.elements[0], &range.elements[1]}) {
            std::string expected;
            for (const RedisReply& other : reply->elements)
                if (expected.empty() && other.elements[0].integer <= end->integer &&
                    end->integer <= other.elements[1].integer)
                    expected = modelNode(other.elements[2]);
            const Server* master = layout->masterOf(static_cast<std::uint16_t>(end->integer));
            require(expected == (master == nullptr ? "" : serverText(*master)), "the master is that of the model");
        }
}

void compareRedirections(const std::string& line) {
    RedisReply reply;
    reply.kind = RedisReply::Kind::error;
    reply.text = line;
    if (!isRedirection(reply))
        return;
    const std::optional<Redirection> found = readRedirection(reply, {"asked", 1});
    require(!found || canBeInUrl(found->target), "a target can be in a url");
    require(!found || found->ask == line.starts_with("ASK"), "ASK is not MOVED");
}

Status ask(Backend& backend, int request) {
    RdbTag tag{};
    tag.name[0] = 'h';
    RdbSnapshot records[2]{};
    records[0].name[0] = 'h';
    records[1].name[0] = 'i';
    return request == 0   ? backend.tags()->get(tag)
           : request == 1 ? backend.tags()->import(tag)
           : request == 2 ? backend.tags()->put({records, 1})
           : request == 3 ? backend.tags()->put({records, 2})
           : request == 4 ? backend.tags()->checkValue(records[0])
                          : backend.probe();
}

void verify(const Status& outcome) {
    const bool reasoned = outcome.code == errorBackendFailed || outcome.code == errorServerRefused;
    require(reasoned == !outcome.reason.empty(), "a failure has a reason, and another outcome has none");
    require(reasoned || outcome.code == errorNone || outcome.code == errorNoSuchTag ||
                outcome.code == errorTagNotUsable || outcome.code == errorNotHeld,
            "an outcome is one of the back end's");
    require(outcome.reason.size() < 4000, "a reason is short enough for a line");
    for (const char c : outcome.reason)
        require(c >= ' ' && c <= '~', "a reason is printable");
}

}  // namespace

extern "C" {

int __wrap_connect(int, const sockaddr*, socklen_t);
int __wrap_connect(int, const sockaddr*, socklen_t) {
    return 0;
}

//  Every name resolves to 127.0.0.1, without a query to a name server.
int __real_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found);
int __wrap_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found);
int __wrap_getaddrinfo(const char*, const char* service, const addrinfo* hints, addrinfo** found) {
    return __real_getaddrinfo("127.0.0.1", service, hints, found);
}

ssize_t __wrap_send(int, const void* bytes, size_t count, int);
ssize_t __wrap_send(int, const void* bytes, size_t count, int) {
    const std::string text(static_cast<const char*>(bytes), count);
    if (text.find("\r\nAUTH\r\n") != std::string::npos)
        pieces.emplace_front("+OK\r\n");
    if (text.find("\r\nSETNAME\r\n") != std::string::npos)
        pieces.emplace_front("+OK\r\n+PONG\r\n");
    sent += text;
    return static_cast<ssize_t>(count);
}

ssize_t __wrap_recv(int, void* bytes, size_t count, int);
ssize_t __wrap_recv(int, void* bytes, size_t count, int) {
    const std::size_t taken = std::min(count, available.size());
    std::memcpy(bytes, available.data(), taken);
    available.erase(0, taken);
    errno = EAGAIN;
    return taken == 0 ? -1 : static_cast<ssize_t>(taken);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const int kind = input.number<std::uint8_t>() % 12;
    const std::string answers = input.all();
    pieces.clear();
    available.clear();
    sent.clear();
    for (std::size_t at = 0, end = 0; at < answers.size(); at = end + 1) {
        end = std::min(answers.find('\0', at), answers.size());
        const std::string piece = answers.substr(at, end - at);
        compareLayouts(piece);
        compareRedirections(piece.substr(std::min<std::size_t>(1, piece.size())));
        if (!piece.empty())
            pieces.push_back(piece);
    }
    const BackendResult made =
        makeBackend(kind < 6 ? "redis+cluster://a,b:7000" : "redis+sentinel://a,b:7000/m", {"u", "secret"});
    require(made.ok(), "the url is valid");
    const Status opened = (*made)->open(waiter);
    verify(opened);
    if (opened.ok())
        verify(ask(**made, kind % 6));
    constexpr std::size_t most = maxRedirections + 1;
    constexpr std::size_t groups = 2;
    require(count("\r\nEVALSHA\r\n") <= groups * most, "a script is not named too often");
    require(count("\r\nEVAL\r\n") <= groups * most, "a script is not sent too often");
    require(count("\r\nASKING\r\n") <= 3 * groups * most, "ASKING is not sent too often");
    require(sent.find("\r\nASKING\r\n") == std::string::npos || answers.find("ASK ") != std::string::npos,
            "ASKING is sent only after ASK");
    (*made)->close();
    return 0;
}
}
