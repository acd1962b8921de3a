//  The back end redis with a server that sends the input, in pieces of a size that the input chooses. Compares parsed
//  answers with a second reader. A script may be sent only if the server has asked for it, and each outcome must be one
//  of the back end's.
#include "backends.h"
#include "engine/clock.h"
#include "fuzz_input.h"
#include "redis_model.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <sys/socket.h>
#include <utility>

namespace {

using namespace rdbopen;

std::string toReceive;
std::string sent;
std::size_t pieceSize = 1;
bool pieceThere = false;  // true while the current piece can be read; each wait provides one piece

class ReadyWaiter : public Waiter {
public:
    Result wait(int, short, std::chrono::milliseconds) const noexcept override {
        pieceThere = !toReceive.empty();
        return pieceThere ? Result::ready : Result::timedOut;
    }
};

constexpr ReadyWaiter waiter;

//  The parsed answer must not depend on how the bytes are split, and must equal the answer of the independent parser if
//  that parser returns one.
void compareParsers(const std::string& bytes) {
    RedisReplyParser whole;
    RedisReplyParser pieces;
    require(whole.reset().ok() && pieces.reset().ok(), "the parser is reset");
    whole.feed(bytes);
    const auto one = whole.next();
    auto other = pieces.next();
    for (std::size_t i = 0; i < bytes.size() && other.ok() && !*other; ++i) {
        pieces.feed({bytes.data() + i, 1});
        other = pieces.next();
    }
    require(one.ok() == other.ok(), "both parsers fail or both succeed");
    const bool complete = one.ok() && one->has_value();
    require(complete == (other.ok() && other->has_value()), "both parsers end in the same way");
    require(!complete || RedisModel::same(**one, **other), "both parsers return the same answer");
    const auto model = RedisModel(bytes).read();
    require(!model || (complete && RedisModel::same(**one, *model)), "the answer equals that of the model");
}

void ask(Backend& backend, int request, const std::string& answers) {
    RdbTag tag{};
    tag.name[0] = 'h';
    RdbSnapshot record{};
    record.name[0] = 'h';
    record.value[0] = 'v';
    record.valuelen = 1;
    sent.clear();
    const Status outcome = request == 0   ? backend.tags()->get(tag)
                           : request == 1 ? backend.tags()->import(tag)
                           : request == 2 ? backend.tags()->put({&record, 1})
                           : request == 3 ? backend.tags()->checkValue(record)
                                          : backend.probe();
    const bool reasoned = outcome.code == errorBackendFailed || outcome.code == errorServerRefused;
    require(reasoned == !outcome.reason.empty(), "a failure has a reason, and another outcome has none");
    require(reasoned || outcome.code == errorNone || outcome.code == errorNoSuchTag ||
                outcome.code == errorTagNotUsable || outcome.code == errorNotHeld,
            "an outcome is one of the back end's");
    require(sent.find("\r\nEVAL\r\n") == std::string::npos || answers.starts_with("-NOSCRIPT"),
            "a script is sent only if the server does not have it");
    for (const char c : outcome.reason)
        require(c >= ' ' && c <= '~', "a reason is printable");
}

}  // namespace

extern "C" {

int __wrap_connect(int, const sockaddr*, socklen_t);
int __wrap_connect(int, const sockaddr*, socklen_t) {
    return 0;
}

ssize_t __wrap_send(int, const void* bytes, size_t count, int);
ssize_t __wrap_send(int, const void* bytes, size_t count, int) {
    sent.append(static_cast<const char*>(bytes), count);
    return static_cast<ssize_t>(count);
}

ssize_t __wrap_recv(int, void* bytes, size_t count, int);
ssize_t __wrap_recv(int, void* bytes, size_t count, int) {
    if (!std::exchange(pieceThere, false)) {
        errno = EAGAIN;
        return -1;
    }
    const std::size_t taken = std::min({count, pieceSize, toReceive.size()});
    std::memcpy(bytes, toReceive.data(), taken);
    toReceive.erase(0, taken);
    return static_cast<ssize_t>(taken);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const int request = input.number<std::uint8_t>() % 5;
    const std::size_t answerPieces = 1U + input.number<std::uint8_t>();
    const std::string answers = input.all();
    compareParsers(answers);
    const BackendResult made = makeBackend("redis://127.0.0.1", {"u", "secret"});
    require(made.ok(), "the url is valid");
    const std::unique_ptr<Backend>& backend = *made;
    toReceive = "+OK\r\n+OK\r\n+PONG\r\n";
    pieceSize = 1;
    require(backend->open(waiter).code == errorNone, "the back end opens with a correct server");
    toReceive = answers;
    pieceSize = answerPieces;
    ask(*backend, request, answers);
    return 0;
}
}
