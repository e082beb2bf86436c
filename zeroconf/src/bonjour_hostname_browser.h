#pragma once
// Watching the IPv4 addresses of one host name.

#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

#include "bonjour_client.h"
#include "zeroconf/hostname_browser.h"

namespace zeroconf {

/// \brief A host-name query made through bonjour_client::create_hostname_browser.
class bonjour_hostname_browser : public hostname_browser {
public:
    class impl;

    bonjour_hostname_browser(boost::shared_ptr<bonjour_client> owner, const std::string& host_name,
                             boost::shared_ptr<hostname_listener> listener);
    ~bonjour_hostname_browser() override;

private:
    boost::shared_ptr<impl> impl_;
};

/// \brief The open address query; answers for other host names are ignored.
class bonjour_hostname_browser::impl : public hostname_browser, public dns_service {
public:
    impl(boost::shared_ptr<bonjour_client> owner, const std::string& host_name,
         boost::shared_ptr<hostname_listener> listener);

private:
    static void DNSSD_API address_reply(DNSServiceRef sd_ref, DNSServiceFlags flags,
                                        std::uint32_t interface_index, DNSServiceErrorType error,
                                        const char* host_name, const struct sockaddr* address,
                                        std::uint32_t ttl, void* context);
    void on_address(DNSServiceFlags flags, std::uint32_t interface_index, DNSServiceErrorType error,
                    const char* host_name, const struct sockaddr* address);

    std::string host_name_;
};

}  // namespace zeroconf
