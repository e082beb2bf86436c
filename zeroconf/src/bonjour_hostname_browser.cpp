#include "bonjour_hostname_browser.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <boost/make_shared.hpp>

#include "zeroconf_log.h"

#ifdef _WIN32
#include <ws2tcpip.h>
#else
#include <netinet/in.h>
#endif

namespace zeroconf {

bonjour_hostname_browser::bonjour_hostname_browser(boost::shared_ptr<bonjour_client> owner,
                                                   const std::string& host_name,
                                                   boost::shared_ptr<hostname_listener> listener)
    : hostname_browser(listener),
      impl_(boost::make_shared<impl>(std::move(owner), host_name, listener)) {
    impl_->add_dns_service();
}

bonjour_hostname_browser::~bonjour_hostname_browser() {
    impl_->remove_dns_service();
}

bonjour_hostname_browser::impl::impl(boost::shared_ptr<bonjour_client> owner,
                                     const std::string& host_name,
                                     boost::shared_ptr<hostname_listener> listener)
    : hostname_browser(std::move(listener)), dns_service(std::move(owner)), host_name_(host_name) {
    DNSServiceErrorType error = DNSServiceGetAddrInfo(
        &sd_ref_, dnssd::flag_return_intermediates, client_->interface_index(),
        dnssd::protocol_ipv4, host_name_.c_str(), &impl::address_reply, this);
    if (error != 0)
        throw std::runtime_error("DNSServiceGetAddrInfo() failed (" + std::to_string(error) + ").");
}

void DNSSD_API bonjour_hostname_browser::impl::address_reply(
    DNSServiceRef, DNSServiceFlags flags, std::uint32_t interface_index, DNSServiceErrorType error,
    const char* host_name, const struct sockaddr* address, std::uint32_t, void* context) {
    guarded_reply([&] {
        static_cast<impl*>(context)->on_address(flags, interface_index, error,
                                                answer_text(host_name), address);
    });
}

void bonjour_hostname_browser::impl::on_address(DNSServiceFlags flags,
                                                std::uint32_t interface_index,
                                                DNSServiceErrorType error, const char* host_name,
                                                const struct sockaddr* address) {
    if (error != 0) {
        ZEROCONF_LOG(3, "errorCode = %d\n", error);
        return;
    }
    if (!host_name_.empty() && host_name_ != host_name)
        return;
    if (!(flags & dnssd::flag_add)) {
        ZEROCONF_LOG(7, "[%p] Hostname Rmv %s\n", static_cast<void*>(listener_.get()), host_name);
        listener_->remove(interface_index, host_name);
        return;
    }
    char text[256] = {};
    if (address && address->sa_family == AF_INET) {
        sockaddr_in ipv4;
        std::memcpy(&ipv4, address, sizeof(ipv4));
        const auto* bytes = reinterpret_cast<const unsigned char*>(&ipv4.sin_addr);
        std::snprintf(text, sizeof(text), "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2], bytes[3]);
    }
    // The structure itself is printed, not the dotted text: the line has always read so.
    ZEROCONF_LOG(7, "[%p] Hostname Resolved %s -> %s\n", static_cast<void*>(listener_.get()),
                 host_name, reinterpret_cast<const char*>(address));
    listener_->add(interface_index, host_name, text);
}

}  // namespace zeroconf
