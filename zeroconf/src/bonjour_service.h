#pragma once
// Publishing a service with DNS-SD.

#include <cstdint>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "bonjour_client.h"
#include "zeroconf/dns_txt_record.h"
#include "zeroconf/service.h"

namespace zeroconf {

/// \brief A registration made through bonjour_client::create_service.
class bonjour_service : public service {
public:
    class impl;

    /// port in host byte order.
    bonjour_service(boost::shared_ptr<bonjour_client> owner, const std::string& name,
                    const std::string& type, std::uint16_t port,
                    const std::vector<std::string>& subtypes,
                    const std::vector<std::string>& txt_entries, status_callback callback);
    ~bonjour_service() override;

private:
    boost::shared_ptr<impl> impl_;
};

/// \brief The open registration; never renamed on a conflict.
class bonjour_service::impl : public service, public dns_service {
public:
    /// Longest instance name DNS-SD takes, plus one.
    static constexpr std::size_t max_name = 64;

    impl(boost::shared_ptr<bonjour_client> owner, const std::string& name, std::string type,
         std::uint16_t port, const std::vector<std::string>& txt_entries, status_callback callback);

private:
    DNSServiceErrorType open_again(DNSServiceRef* ref) override;
    static void DNSSD_API register_reply(DNSServiceRef sd_ref, DNSServiceFlags flags,
                                         DNSServiceErrorType error, const char* name,
                                         const char* type, const char* domain, void* context);
    void on_register(DNSServiceErrorType error);

    std::string name_;
    std::string type_;
    std::uint16_t port_;
    dns_txt_records txt_;
};

}  // namespace zeroconf
