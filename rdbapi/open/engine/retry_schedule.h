//  When a worker opens its back end again, when it retries what is pending, and when it checks what the server holds.
//
//      lost       pause before the next open     grows with each loss, until a connection has held for steadyTime
//      refused    due time of the next retry     grows with each refusal, until a success with nothing pending
//      checked    due time of the next check     one interval of the back end later
//
//  Losses and refusals are counted apart: a server that refuses one value for hours must not delay the return of a
//  connection, and a connection that comes and goes must not bring the refused request forward.
//
//  Every time is passed in; nothing here reads a clock, waits or takes a lock. Times are those of one steady clock.
//
//  Threads: one at a time.
#ifndef RDBAPI_OPEN_ENGINE_RETRY_SCHEDULE_H
#define RDBAPI_OPEN_ENGINE_RETRY_SCHEDULE_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>

namespace rdbopen {

inline constexpr std::chrono::milliseconds backoffMin{1000};
inline constexpr std::chrono::milliseconds backoffMaxBase{48000};  // without the random share

//  Returns how long to wait after failures failures in a row: 1 s after the first, doubled after each further one, at
//  most 48 s, plus a random share of up to a quarter. The share keeps clients that lost the same server from returning
//  in step, from their first wait on:
//
//      failures in a row    1          2        3      4       5        6        7 and more
//      wait, s              1 - 1.25   2 - 2.5  4 - 5  8 - 10  16 - 20  32 - 40  48 - 60
//
//  random is any number; equal numbers give equal waits.
//  Requires: failures >= 1.
std::chrono::milliseconds backoffDelay(unsigned failures, std::uint32_t random) noexcept;

//  A connection that held for so long ends the row of losses.
inline constexpr std::chrono::milliseconds steadyTime{60000};

//  The shortest pause after a failed request for a tag, on top of the first back-off: longer than the 10 s between two
//  publish cycles of the service. One cycle then finds the connection lost and goes on to its DNS step, which it does
//  not reach while a connected database does not take the tag.
inline constexpr std::chrono::milliseconds awayTime{11000};

class RetrySchedule {
public:
    using Time = std::chrono::milliseconds;

    //  seed: of the random shares.
    explicit RetrySchedule(std::uint32_t seed) : random_(seed) {}

    //  The connection is established.
    void connected(Time now) noexcept { connectedAt_ = now; }

    //  A request for a tag failed, which ends the connection: the next pause is at least awayTime and one back-off.
    void tagRequestFailed() noexcept { away_ = true; }

    //  The connection is lost, or could not be opened. Returns the pause before the next open.
    Time lost(Time now);

    //  Something is pending that the server has refused: sets when it is due.
    void refused(Time now) { retryAt_ = now + backoff(++refusals_); }

    //  A request succeeded and nothing is pending.
    void succeeded() noexcept { refusals_ = 0; }

    //  An exchange with the server ended: the next check is due after interval.
    void exchanged(Time now, Time interval) noexcept { checkAt_ = now + interval; }

    //  Return the time left, zero when it is due.
    Time untilRetry(Time now) const noexcept { return left(retryAt_, now); }
    Time untilCheck(Time now) const noexcept { return left(checkAt_, now); }

private:
    static Time left(Time due, Time now) noexcept { return due > now ? due - now : Time(0); }
    Time backoff(unsigned failures) { return backoffDelay(failures, static_cast<std::uint32_t>(random_())); }

    std::optional<Time> connectedAt_;  // none while it is not connected
    bool away_ = false;                // a request for a tag failed since the last pause
    unsigned losses_ = 0;              // in a row, without a steady connection between them
    unsigned refusals_ = 0;            // in a row; a reconnection does not end the row
    Time retryAt_{};                   // due time of what is pending; 0, which is past, before the first refusal
    Time checkAt_{};
    std::minstd_rand random_;
};

}  // namespace rdbopen

#endif
