#pragma once
// Watching the IPv4 addresses of one multicast-DNS host name.

#include <cstdint>
#include <utility>

#include <boost/shared_ptr.hpp>

namespace zeroconf {

/// \brief Told about each address announced or withdrawn for a host name, on the poll thread.
class hostname_listener {
public:
    /// address is dotted IPv4, or empty when the answer was not an IPv4 address.
    virtual void add(std::uint32_t interface_index, const char* host_name, const char* address) = 0;
    virtual void remove(std::uint32_t interface_index, const char* host_name) = 0;
    virtual ~hostname_listener() = default;
};

/// \brief A running host-name query; it ends when the last reference goes.
class hostname_browser {
public:
    explicit hostname_browser(boost::shared_ptr<hostname_listener> listener)
        : listener_(std::move(listener)) {}
    virtual ~hostname_browser() = default;

protected:
    boost::shared_ptr<hostname_listener> listener_;
};

}  // namespace zeroconf
