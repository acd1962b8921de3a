#include "open_fake_redis.h"

#include <csignal>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace opentest {

namespace {

//  The client may have closed the connection. That is not a failure of the test.
void writeAll(int descriptor, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written = write(descriptor, bytes.data() + done, bytes.size() - done);
        if (written <= 0)
            return;
        done += static_cast<std::size_t>(written);
    }
}

}  // namespace

FakeRedis::FakeRedis() {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    bind(listener_, generic, length);
    listen(listener_, 64);
    getsockname(listener_, generic, &length);
    port_ = ntohs(address.sin_port);
    start();
}

FakeRedis::FakeRedis(const std::string& socketPath) {
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener_, 64);
    start();
}

void FakeRedis::start() {
    [[maybe_unused]] const int piped = pipe(stop_);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

FakeRedis::~FakeRedis() {
    close(stop_[1]);
    thread_.join();
    close(stop_[0]);
    close(listener_);
    hangUp();
}

std::string FakeRedis::url(const std::string& rest) const {
    return "redis://127.0.0.1:" + std::to_string(port_) + rest;
}

void FakeRedis::answer(const std::string& word, const std::string& bytes) {
    const std::lock_guard lock(mutex_);
    script_[word].push_back({bytes, false});
}

void FakeRedis::answerAndClose(const std::string& word, const std::string& bytes) {
    const std::lock_guard lock(mutex_);
    script_[word].push_back({bytes, true});
}

void FakeRedis::usually(const std::string& word, const std::string& bytes) {
    const std::lock_guard lock(mutex_);
    usual_[word] = bytes;
}

void FakeRedis::clearAnswers() {
    const std::lock_guard lock(mutex_);
    script_.clear();
}

void FakeRedis::greet(const std::string& bytes, bool close) {
    const std::lock_guard lock(mutex_);
    greeting_ = {bytes, close};
}

void FakeRedis::say(const std::string& bytes) {
    const std::lock_guard lock(mutex_);
    for (const Connection& connection : connections_)
        writeAll(connection.descriptor, bytes);
}

void FakeRedis::hangUp() {
    const std::lock_guard lock(mutex_);
    for (const Connection& connection : connections_)
        close(connection.descriptor);
    connections_.clear();
}

std::vector<FakeRedis::Command> FakeRedis::received() {
    const std::lock_guard lock(mutex_);
    return received_;
}

std::vector<FakeRedis::Command> FakeRedis::received(const std::string& word) {
    std::vector<Command> found;
    for (const Command& command : received())
        if (command.front() == word)
            found.push_back(command);
    return found;
}

int FakeRedis::connections() {
    const std::lock_guard lock(mutex_);
    return accepted_;
}

std::size_t FakeRedis::openConnections() {
    const std::lock_guard lock(mutex_);
    return connections_.size();
}

//  Updates the list of connections at least every 20 ms, so that closed connections are soon removed from it.
void FakeRedis::run() {
    for (;;) {
        std::vector<pollfd> waited{{stop_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        {
            const std::lock_guard lock(mutex_);
            for (const Connection& connection : connections_)
                waited.push_back({connection.descriptor, POLLIN, 0});
        }
        poll(waited.data(), waited.size(), 20);
        if (waited[0].revents != 0)
            return;
        const std::lock_guard lock(mutex_);
        if (waited[1].revents != 0)
            accept();
        for (auto connection = connections_.begin(); connection != connections_.end();) {
            pollfd now{connection->descriptor, POLLIN, 0};
            const bool ready = poll(&now, 1, 0) == 1;
            if (ready && !serve(*connection)) {
                close(connection->descriptor);
                connection = connections_.erase(connection);
            } else {
                ++connection;
            }
        }
    }
}

void FakeRedis::accept() {
    const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0)
        return;
    ++accepted_;
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    writeAll(descriptor, greeting_.bytes);
    if (greeting_.close) {
        close(descriptor);
        return;
    }
    Connection& connection = connections_.emplace_back();
    connection.descriptor = descriptor;
    static_cast<void>(connection.parser.reset());  // fails only without memory
}

bool FakeRedis::serve(Connection& connection) {
    char bytes[16384];
    const ssize_t taken = read(connection.descriptor, bytes, sizeof bytes);
    if (taken <= 0)
        return false;
    connection.parser.feed({bytes, static_cast<std::size_t>(taken)});
    for (auto request = connection.parser.next(); request.ok() && *request; request = connection.parser.next()) {
        Command command;
        for (const rdbopen::RedisReply& word : (*request)->elements)
            command.push_back(word.text);
        received_.push_back(command);
        if (!reply(connection, command))
            return false;
    }
    return true;
}

bool FakeRedis::reply(Connection& connection, const Command& command) {
    std::deque<Answer>& scripted = script_[command.front()];
    Answer answer;
    if (scripted.empty()) {
        answer.bytes = usual(command.front());
    } else {
        answer = scripted.front();
        scripted.pop_front();
    }
    writeAll(connection.descriptor, answer.bytes);
    return !answer.close;
}

std::string FakeRedis::usual(const std::string& word) const {
    if (const auto set = usual_.find(word); set != usual_.end())
        return set->second;
    static const std::map<std::string, std::string> answers{{"PING", "+PONG\r\n"},
                                                            {"ROLE", "*1\r\n$6\r\nmaster\r\n"},
                                                            {"HMGET", "*3\r\n$-1\r\n$-1\r\n$-1\r\n"},
                                                            {"EVALSHA", "*1\r\n$4\r\ndone\r\n"},
                                                            {"EVAL", "*1\r\n$4\r\ndone\r\n"}};
    const auto found = answers.find(word);
    return found == answers.end() ? "+OK\r\n" : found->second;
}

}  // namespace opentest
