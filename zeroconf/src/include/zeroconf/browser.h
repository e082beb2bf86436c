#pragma once
// Watching one DNS-SD service type in the network.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>

namespace zeroconf {

/// \brief Told about service instances as they appear (resolved to an IPv4 address) and go.
/// Called on the client's poll thread.
class browser_listener {
public:
    /// name has its DNS escapes undone; address is dotted IPv4; port in host byte order;
    /// txt holds the TXT entries in record order, each still "key=value".
    virtual void add(std::uint32_t interface_index, const char* name, const char* type,
                     const char* host, const char* address, std::uint16_t port,
                     const std::vector<std::string>& txt) = 0;
    /// name and type exactly as the browse event gave them.
    virtual void remove(std::uint32_t interface_index, const char* name, const char* type) = 0;
    virtual ~browser_listener() = default;
};

/// \brief A running browse; it ends when the last reference goes.
class browser {
public:
    explicit browser(boost::shared_ptr<browser_listener> listener)
        : listener_(std::move(listener)) {}
    virtual ~browser() = default;
    /// Kept for other DNS-SD back ends; Bonjour browses need no refresh.
    virtual void refresh() {}

    const boost::shared_ptr<browser_listener>& listener() const { return listener_; }

protected:
    boost::shared_ptr<browser_listener> listener_;
};

}  // namespace zeroconf
