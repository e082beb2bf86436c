#pragma once
// A service published with DNS-SD.

#include <cstdint>
#include <utility>

#include <boost/function.hpp>

namespace zeroconf {

/// \brief A registration; withdrawn when the last reference goes. Its outcome arrives
/// through the status callback on the poll thread.
class service {
public:
    enum status : std::int32_t {
        not_answered = 0,
        failed = 1,
        name_collision = 2,
        registered = 3,
    };
    using status_callback = boost::function<void(int)>;

    explicit service(status_callback callback) : callback_(std::move(callback)) {}
    virtual ~service() = default;

protected:
    std::int32_t state_ = not_answered;
    status_callback callback_;
};

}  // namespace zeroconf
