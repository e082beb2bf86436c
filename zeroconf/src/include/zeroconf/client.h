#pragma once
// The zeroconf client: the factory of browsers, services and host-name browsers.

#include <cstdint>
#include <string>
#include <vector>

#include <boost/core/noncopyable.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include "zeroconf/browser.h"
#include "zeroconf/clock.h"
#include "zeroconf/hostname_browser.h"
#include "zeroconf/service.h"

namespace zeroconf {

/// \brief Owns the thread that serves every DNS-SD operation made through it. The factories
/// return null (and log why) when DNS-SD refuses the operation.
class client : public boost::enable_shared_from_this<client>, private boost::noncopyable {
public:
    /// interface_index 0 (or negative) means every interface.
    static boost::shared_ptr<client> create(int interface_index);
    static boost::shared_ptr<client> create(int interface_index,
                                            boost::shared_ptr<const clock> time);

    virtual ~client() = default;

    /// Browses domain on every interface; type gets ",subtype" when subtype is not empty.
    /// An empty name_filter reports every instance.
    virtual boost::shared_ptr<browser> create_browser(const std::string& name_filter,
                                                      const std::string& type,
                                                      const std::string& domain,
                                                      const std::string& subtype,
                                                      boost::shared_ptr<browser_listener> listener,
                                                      bool reconfirm) = 0;
    /// Browses the default domains on the client's interface.
    virtual boost::shared_ptr<browser> create_browser(const std::string& name_filter,
                                                      const std::string& type,
                                                      const std::string& subtype,
                                                      boost::shared_ptr<browser_listener> listener,
                                                      bool reconfirm) = 0;
    virtual boost::shared_ptr<hostname_browser> create_hostname_browser(
        const std::string& host_name, boost::shared_ptr<hostname_listener> listener) = 0;
    /// port in host byte order; the callback receives a service::status.
    virtual boost::shared_ptr<service> create_service(const std::string& name,
                                                      const std::string& type, std::uint16_t port,
                                                      const std::vector<std::string>& subtypes,
                                                      const std::vector<std::string>& txt_entries,
                                                      service::status_callback callback) = 0;
};

}  // namespace zeroconf
