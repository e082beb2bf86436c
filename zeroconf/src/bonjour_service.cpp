#include "bonjour_service.h"

#include <stdexcept>

#include <boost/make_shared.hpp>

#include "zeroconf_log.h"

#ifdef _WIN32
#include <winsock2.h>
#else
#include <arpa/inet.h>
#endif

namespace zeroconf {

namespace {

std::string type_with_subtypes(const std::string& type, const std::vector<std::string>& subtypes) {
    std::string text = type;
    for (const std::string& subtype : subtypes)
        text += "," + subtype;
    return text;
}

}  // namespace

bonjour_service::bonjour_service(boost::shared_ptr<bonjour_client> owner, const std::string& name,
                                 const std::string& type, std::uint16_t port,
                                 const std::vector<std::string>& subtypes,
                                 const std::vector<std::string>& txt_entries,
                                 status_callback callback)
    : service(callback),
      impl_(boost::make_shared<impl>(std::move(owner), name, type_with_subtypes(type, subtypes),
                                     port, txt_entries, callback)) {
    impl_->add_dns_service();
}

bonjour_service::~bonjour_service() {
    impl_->remove_dns_service();
}

bonjour_service::impl::impl(boost::shared_ptr<bonjour_client> owner, const std::string& name,
                            std::string type, std::uint16_t port,
                            const std::vector<std::string>& txt_entries, status_callback callback)
    : service(std::move(callback)),
      dns_service(std::move(owner)),
      name_(name),
      type_(std::move(type)),
      port_(port),
      txt_(txt_entries) {
    // The daemon has the last word on the length, so the registration is still tried.
    if (name_.size() >= max_name)
        ZEROCONF_LOG(3, "service name \"%s\" is too long(%zu) should be < %u\n", name_.c_str(),
                     name_.size(), static_cast<unsigned>(max_name));
    DNSServiceErrorType error = impl::open_again(&sd_ref_);
    if (error != 0)
        throw std::runtime_error("Could not register service \"" + name_ + "\" (" +
                                 std::to_string(error) + ").");
}

DNSServiceErrorType bonjour_service::impl::open_again(DNSServiceRef* ref) {
    return DNSServiceRegister(ref, dnssd::flag_no_auto_rename, client_->interface_index(),
                              name_.c_str(), type_.c_str(), nullptr, nullptr, htons(port_),
                              txt_.length(), txt_.data(), &impl::register_reply, this);
}

void DNSSD_API bonjour_service::impl::register_reply(DNSServiceRef, DNSServiceFlags,
                                                     DNSServiceErrorType error, const char*,
                                                     const char*, const char*, void* context) {
    guarded_reply([&] { static_cast<impl*>(context)->on_register(error); });
}

void bonjour_service::impl::on_register(DNSServiceErrorType error) {
    if (error == dnssd::err_name_conflict) {
        ZEROCONF_LOG(3, "bonjour_service failed name collision (%i)\n", error);
        state_ = name_collision;
    } else if (error != 0) {
        // Past a conflict, a registration fails only when the daemon has gone; it comes back
        // with it, under the same name.
        ZEROCONF_LOG(3, "bonjour_service failed (%i)\n", error);
        state_ = failed;
        lose(error);
    } else {
        state_ = registered;
    }
    callback_(state_);
}

}  // namespace zeroconf
