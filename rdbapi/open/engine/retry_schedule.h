//  Computes when a worker opens its back end again, retries pending data, and checks the server's data.
//
//      lost         pause before the next open     grows with each loss; resets after a connection of steadyTime
//      refused      due time of the next retry     grows with each refusal; resets at a success with nothing pending
//      exchanged    due time of the next check     after a constant interval, which the back end defines
//
//  Losses and refusals have separate counters: a server that refuses one value for hours must not delay reconnections,
//  and a connection that is often lost must not cause earlier retries of the refused request.
//
//  The caller passes the current time of one monotonic clock. This code reads no clock, never waits and takes no lock.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_ENGINE_RETRY_SCHEDULE_H
#define RDBAPI_OPEN_ENGINE_RETRY_SCHEDULE_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>

namespace rdbopen {

inline constexpr std::chrono::milliseconds backoffMin{1000};
inline constexpr std::chrono::milliseconds backoffMaxBase{48000};  // without the random part

//  Returns the delay after this number of consecutive failures: 1 s after the first one, doubled after each further
//  one, at most 48 s; plus a random part of up to a quarter. Because of the random part, clients that lost the same
//  server do not all reconnect at the same time:
//
//      consecutive failures 1          2        3      4       5        6        7 and more
//      delay, s             1 - 1.25   2 - 2.5  4 - 5  8 - 10  16 - 20  32 - 40  48 - 60
//
//  random is any number; the same number gives the same delay.
//  Requires: failures >= 1.
std::chrono::milliseconds backoffDelay(unsigned failures, std::uint32_t random) noexcept;

//  After a connection that lasts this long, the count of losses starts again at 1.
inline constexpr std::chrono::milliseconds steadyTime{60000};

//  The minimum pause after a failed request for a tag, to which the first back-off is added. It is longer than the 10 s
//  between two publish cycles of the service, so at least one cycle finds the connection lost and continues with its
//  DNS step. While a database is connected and does not have the tag, the service never reaches this step.
inline constexpr std::chrono::milliseconds awayTime{11000};

class RetrySchedule {
public:
    using Time = std::chrono::milliseconds;

    //  seed: initial value for the random parts.
    explicit RetrySchedule(std::uint32_t seed) : random_(seed) {}

    //  Call when the connection is established.
    void connected(Time now) noexcept { connectedAt_ = now; }

    //  Call when a request for a tag failed. This ends the connection; the next pause is at least awayTime and one
    //  back-off.
    void tagRequestFailed() noexcept { away_ = true; }

    //  Call when the connection is lost or cannot be opened. Returns the pause before the next open.
    Time lost(Time now);

    //  Call when the server has refused pending data. Sets the due time of the next retry.
    void refused(Time now) { retryAt_ = now + backoff(++refusals_); }

    //  Call when a request has succeeded and nothing is pending.
    void succeeded() noexcept { refusals_ = 0; }

    //  Call after each exchange with the server. The next check is due after interval.
    void exchanged(Time now, Time interval) noexcept { checkAt_ = now + interval; }

    //  Return the time until the retry or the check is due; zero if it is due now.
    Time untilRetry(Time now) const noexcept { return left(retryAt_, now); }
    Time untilCheck(Time now) const noexcept { return left(checkAt_, now); }

private:
    static Time left(Time due, Time now) noexcept { return due > now ? due - now : Time(0); }
    Time backoff(unsigned failures) { return backoffDelay(failures, static_cast<std::uint32_t>(random_())); }

    std::optional<Time> connectedAt_;  // empty while not connected
    bool away_ = false;                // a request for a tag failed since the last pause
    unsigned losses_ = 0;              // consecutive, without a connection of steadyTime between them
    unsigned refusals_ = 0;            // consecutive; a reconnection does not reset the count
    Time retryAt_{};                   // due time of pending data; initially 0, so that the first retry is due at once
    Time checkAt_{};
    std::minstd_rand random_;
};

}  // namespace rdbopen

#endif
