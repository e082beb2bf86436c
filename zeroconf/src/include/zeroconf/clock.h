#pragma once
// Time as the zeroconf library sees it.

#include <chrono>

namespace zeroconf {

/// \brief Monotonic time and the library's fixed waits. The product uses the designed values;
/// a test may pass a clock whose time it moves by hand, or shorter waits.
class clock {
public:
    explicit clock(std::chrono::nanoseconds poll_wait = std::chrono::milliseconds(100),
                   std::chrono::nanoseconds stale_after = std::chrono::minutes(5))
        : poll_wait_(poll_wait), stale_after_(stale_after) {}
    virtual ~clock() = default;

    /// Monotonic time, only ever compared with earlier values of the same clock.
    virtual std::chrono::nanoseconds now() const {
        return std::chrono::steady_clock::now().time_since_epoch();
    }
    /// Longest wait of the poll thread: one select() or one idle sleep.
    std::chrono::nanoseconds poll_wait() const { return poll_wait_; }
    /// Age at which an unanswered resolve or address query is given up.
    std::chrono::nanoseconds stale_after() const { return stale_after_; }

private:
    std::chrono::nanoseconds poll_wait_;
    std::chrono::nanoseconds stale_after_;
};

}  // namespace zeroconf
