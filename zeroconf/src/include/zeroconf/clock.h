#pragma once
// Time as the zeroconf library sees it.

#include <chrono>

namespace zeroconf {

/// \brief Monotonic time and the library's fixed waits. The product uses the designed values;
/// a test may pass a clock whose time it moves by hand, or shorter waits.
class clock {
public:
    explicit clock(std::chrono::nanoseconds poll_wait = std::chrono::milliseconds(100),
                   std::chrono::nanoseconds stale_after = std::chrono::minutes(5),
                   std::chrono::nanoseconds reopen_every = std::chrono::seconds(1),
                   std::chrono::nanoseconds settle_after = std::chrono::seconds(7),
                   std::chrono::nanoseconds retry_after = std::chrono::seconds(1))
        : poll_wait_(poll_wait),
          stale_after_(stale_after),
          reopen_every_(reopen_every),
          settle_after_(settle_after),
          retry_after_(retry_after) {}
    virtual ~clock() = default;

    /// Monotonic time, only ever compared with earlier values of the same clock.
    virtual std::chrono::nanoseconds now() const {
        return std::chrono::steady_clock::now().time_since_epoch();
    }
    /// Longest wait of the poll thread: one select() or one idle sleep.
    std::chrono::nanoseconds poll_wait() const { return poll_wait_; }
    /// Age at which an unanswered resolve or address query is given up.
    std::chrono::nanoseconds stale_after() const { return stale_after_; }
    /// How often browses and registrations are re-opened while the DNS-SD daemon is away.
    std::chrono::nanoseconds reopen_every() const { return reopen_every_; }
    /// How long a re-opened browse has to report an instance again before it is removed: with
    /// reopen_every, an instance gone meanwhile leaves within 10 s of the daemon's return.
    std::chrono::nanoseconds settle_after() const { return settle_after_; }
    /// Wait before the first new resolve of an instance whose resolve failed; doubled each time.
    std::chrono::nanoseconds retry_after() const { return retry_after_; }

private:
    std::chrono::nanoseconds poll_wait_;
    std::chrono::nanoseconds stale_after_;
    std::chrono::nanoseconds reopen_every_;
    std::chrono::nanoseconds settle_after_;
    std::chrono::nanoseconds retry_after_;
};

}  // namespace zeroconf
