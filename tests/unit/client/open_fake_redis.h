//  A Redis server on a free loopback port with scripted answers. Without a script it answers like an empty server that
//  accepts every command. It stores nothing.
//
//  It transfers data only with read(2) and write(2), so that a test can make recv(2) and send(2) of the library fail.
#ifndef TESTS_UNIT_OPEN_FAKE_REDIS_H
#define TESTS_UNIT_OPEN_FAKE_REDIS_H

#include "redis/reply.h"

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace opentest {

class FakeRedis {
public:
    using Command = std::vector<std::string>;

    FakeRedis();

    //  Listens at a Unix socket instead of a port. Creates the socket, and never removes it.
    explicit FakeRedis(const std::string& socketPath);
    FakeRedis(const FakeRedis&) = delete;
    FakeRedis& operator=(const FakeRedis&) = delete;
    ~FakeRedis();

    std::string url(const std::string& rest = "") const;
    std::uint16_t port() const { return port_; }

    //  Sets the next answer to a command whose first word is `word`. Each further call sets one more answer.
    void answer(const std::string& word, const std::string& bytes);

    //  Like answer, but the server closes the connection after it has sent the bytes.
    void answerAndClose(const std::string& word, const std::string& bytes);

    //  Sets the usual answer to commands whose first word is `word`. It is sent if no other answer is left.
    void usually(const std::string& word, const std::string& bytes);

    //  Removes the scripted answers, except the usual ones.
    void clearAnswers();

    //  Sends the bytes to each client that connects. Then closes the connection if `close` is true.
    void greet(const std::string& bytes, bool close);

    //  Sends the bytes to every connection (say), or closes every connection (hangUp).
    void say(const std::string& bytes);
    void hangUp();

    //  Returns the commands received so far in order: all, or those with the given first word.
    std::vector<Command> received();
    std::vector<Command> received(const std::string& word);
    int connections();

    //  Returns the number of connections that neither side has closed.
    std::size_t openConnections();

private:
    struct Answer {
        std::string bytes;
        bool close = false;
    };
    struct Connection {
        int descriptor = -1;
        rdbopen::RedisReplyParser parser;
    };

    void start();
    void run();
    void accept();
    bool serve(Connection& connection);
    bool reply(Connection& connection, const Command& command);
    std::string usual(const std::string& word) const;

    int listener_ = -1;
    int stop_[2]{-1, -1};
    std::uint16_t port_ = 0;
    std::mutex mutex_;
    std::map<std::string, std::deque<Answer>> script_;
    std::map<std::string, std::string> usual_;
    Answer greeting_;
    std::vector<Command> received_;
    int accepted_ = 0;
    std::list<Connection> connections_;
    std::thread thread_;
};

}  // namespace opentest

#endif
