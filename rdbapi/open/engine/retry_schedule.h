//  Computes when a worker opens its back end again, retries pending data, checks the server's data, and refreshes it.
//
//      lost         pause before the next open     grows with each loss; resets after a connection of steadyTime
//      refused      due time of the next retry     grows with each refusal; resets at a success with nothing pending
//      connected    due time of the first check    after a random part of the interval that the back end defines
//      checked      due time of the next check     after a constant interval; a fixed share of the checks are refreshes
//
//  Hosts that connect at the same time, for example after a restart of their server, check and refresh at random times
//  that each of them keeps until its next connection:
//
//      connected                                       check interval 60 s, 9 checks in refreshTime
//      |--random--|---60 s---|---60 s---|--- ... ---|
//                 check      check      refresh     check ...      a random one of the first 9 is a refresh,
//                                                                  then each ninth one
//
//  Losses and refusals have separate counters: a server that refuses one value for hours must not delay reconnections,
//  and a reconnection must not shorten the delay after the next refusal.
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

//  The maximum time from one due refresh to the next while nothing is pending, if the back end has checks. A check
//  only reads the data; a refresh writes it again. So the data does not expire, and the server has a new time of its
//  last confirmation. A refresh replaces the repetition that the service makes after 600 s. refreshTime is 60 s less,
//  which is one check interval of redis. A Redis key with an expiry lasts at least 660 s, so it survives if a refresh
//  comes almost 120 s (two such intervals) late.
inline constexpr std::chrono::milliseconds refreshTime{540000};

//  The pause after a failed call for a tag is at least this time plus the first back-off. This time is longer than the
//  10 s between two publish cycles of the service, so at least one cycle finds the connection lost and continues with
//  its DNS step. While a database is connected and does not have the tag, the service never reaches this step.
inline constexpr std::chrono::milliseconds awayTime{11000};

class RetrySchedule {
public:
    using Time = std::chrono::milliseconds;

    //  seed: initial value for the random parts.
    explicit RetrySchedule(std::uint32_t seed) : random_(seed) {}

    //  Call when the connection is established. interval: time between two checks, zero for no checks; an interval
    //  above refreshTime is shortened to refreshTime. random: any number, which determines the times of the checks and
    //  refreshes.
    void connected(Time now, Time interval, std::uint32_t random) noexcept;

    //  Call when a call for a tag has failed, but not when a retry of such a call has failed. The next pause is at
    //  least awayTime plus the back-off of a first failure.
    void tagRequestFailed() noexcept { away_ = true; }

    //  Call when the connection is lost or cannot be opened. Returns the pause before the next open.
    Time lost(Time now);

    //  Call after a refusal or another failure that leaves the connection open while data is pending. Sets the due time
    //  of the next retry.
    void refused(Time now) { retryAt_ = now + backoff(++refusals_); }

    //  Call when a request has succeeded and nothing is pending.
    void succeeded() noexcept { refusals_ = 0; }

    //  Call when a check that is due begins. Returns whether a refresh replaces this check. A delay of this check does
    //  not delay later ones. Requires: checkInterval() is not zero.
    bool checked(Time now) noexcept;

    //  Returns the time between two checks of this connection, zero for no checks.
    Time checkInterval() const noexcept { return checkInterval_; }

    //  Return the time until the retry or the check is due; zero if it is due now.
    Time untilRetry(Time now) const noexcept { return left(retryAt_, now); }
    Time untilCheck(Time now) const noexcept { return left(checkAt_, now); }

private:
    static Time left(Time due, Time now) noexcept { return due > now ? due - now : Time(0); }
    Time backoff(unsigned failures) { return backoffDelay(failures, static_cast<std::uint32_t>(random_())); }

    std::optional<Time> connectedAt_;  // empty while not connected
    bool away_ = false;                // a call for a tag failed since the last pause
    unsigned losses_ = 0;              // consecutive, without a connection of steadyTime between them
    unsigned refusals_ = 0;            // consecutive; a reconnection does not reset the count
    Time retryAt_{};                   // due time of the next retry; initially 0, so that the first one is due at once
    Time checkInterval_{};
    Time checkAt_{};
    std::uint32_t checksPerRefresh_ = 1;  // at least 1; a refresh counts as a check
    std::uint32_t checksToRefresh_ = 1;   // at least 1; with 1, the next check is a refresh
    std::minstd_rand random_;
};

}  // namespace rdbopen

#endif
