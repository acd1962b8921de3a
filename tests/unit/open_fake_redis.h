//  A Redis server on a free loopback port that answers as told. Without a script it answers as a server that is empty and
//  takes everything; it keeps nothing.
//
//  It uses read(2) and write(2) only, so that a test may let the library's own socket calls fail.
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
    FakeRedis(const FakeRedis&) = delete;
    FakeRedis& operator=(const FakeRedis&) = delete;
    ~FakeRedis();

    std::string url(const std::string& rest = "") const;

    //  The bytes of the next answer to a command with this first word, instead of the usual ones; several calls line up.
    void answer(const std::string& word, const std::string& bytes);

    //  Closes the connection instead of answering, after these bytes.
    void answerAndClose(const std::string& word, const std::string& bytes);

    //  Answers as usual from now on.
    void forget();

    //  Sent as soon as a connection is there.
    void greet(const std::string& bytes, bool close);

    //  Sends bytes to, or closes, every connection.
    void say(const std::string& bytes);
    void hangUp();

    //  All commands received so far, in order, and those with one first word.
    std::vector<Command> received();
    std::vector<Command> received(const std::string& word);
    int connections();

private:
    struct Answer {
        std::string bytes;
        bool close = false;
    };
    struct Connection {
        int descriptor = -1;
        int queued = -1;  // commands since MULTI, -1 outside
        rdbopen::RedisReplyParser parser;
    };

    void run();
    void accept();
    bool serve(Connection& connection);
    bool reply(Connection& connection, const Command& command);
    static std::string usual(Connection& connection, const std::string& word);

    int listener_ = -1;
    int stop_[2]{-1, -1};
    std::uint16_t port_ = 0;
    std::mutex mutex_;
    std::map<std::string, std::deque<Answer>> script_;
    Answer greeting_;
    std::vector<Command> received_;
    int accepted_ = 0;
    std::list<Connection> connections_;
    std::thread thread_;
};

}  // namespace opentest

#endif
