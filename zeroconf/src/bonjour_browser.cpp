#include "bonjour_browser.h"

#include <cstdio>
#include <stdexcept>

#include <boost/make_shared.hpp>

#include "zeroconf/dns_txt_record.h"
#include "zeroconf_log.h"

#ifdef _WIN32
#include <winsock2.h>
#else
#include <arpa/inet.h>
#endif

namespace zeroconf {

std::string instance_part(const char* fullname) {
    std::size_t backslashes = 0;
    for (const char* cursor = fullname; *cursor; ++cursor) {
        if (*cursor == '.' && backslashes % 2 == 0)
            return std::string(fullname, static_cast<std::size_t>(cursor - fullname));
        backslashes = *cursor == '\\' ? backslashes + 1 : 0;
    }
    throw std::runtime_error("illegal service name");
}

std::string unescape_instance_name(const std::string& instance) {
    std::string dots;
    dots.reserve(instance.size());
    for (std::size_t i = 0; i < instance.size(); ++i) {
        if (instance[i] == '\\' && i + 1 < instance.size() && instance[i + 1] == '.') {
            dots += '.';
            ++i;
        } else {
            dots += instance[i];
        }
    }

    auto digit = [&dots](std::size_t i) { return dots[i] >= '0' && dots[i] <= '9'; };
    std::string name;
    name.reserve(dots.size());
    for (std::size_t i = 0; i < dots.size(); ++i) {
        if (dots[i] != '\\') {
            name += dots[i];
        } else if (i + 1 < dots.size() && dots[i + 1] == '\\') {
            name += '\\';
            ++i;
        } else if (i + 3 < dots.size() && digit(i + 1) && digit(i + 2) && digit(i + 3)) {
            int value = (dots[i + 1] - '0') * 100 + (dots[i + 2] - '0') * 10 + (dots[i + 3] - '0');
            name += static_cast<char>(static_cast<unsigned char>(value));
            i += 3;
        } else {
            name += dots[i];
        }
    }
    return name;
}

bonjour_browser::bonjour_browser(boost::shared_ptr<bonjour_client> owner,
                                 boost::shared_ptr<browser_listener> listener,
                                 const std::string& name_filter, const std::string& type,
                                 const char* domain, std::uint32_t interface_index, bool reconfirm)
    : browser(listener),
      impl_(boost::make_shared<impl>(std::move(owner), listener, name_filter, type, domain,
                                     interface_index, reconfirm)) {
    impl_->add_dns_service();
}

bonjour_browser::~bonjour_browser() {
    // Resolves already under way live on in their contexts.
    impl_->remove_dns_service();
}

void bonjour_browser::refresh() {
    impl_->refresh();
}

bonjour_browser::impl::impl(boost::shared_ptr<bonjour_client> owner,
                            boost::shared_ptr<browser_listener> listener,
                            const std::string& name_filter, const std::string& type,
                            const char* domain, std::uint32_t interface_index, bool reconfirm)
    : browser(std::move(listener)),
      dns_service(std::move(owner)),
      name_filter_(name_filter),
      type_(type),
      domain_(domain ? domain : ""),
      has_domain_(domain != nullptr),
      interface_index_(interface_index),
      history_(boost::make_shared<browse_history>()),
      reconfirm_(reconfirm) {
    DNSServiceErrorType error = impl::open_again(&sd_ref_);
    if (error != 0)
        throw std::runtime_error("DNSServiceBrowse() failed (" + std::to_string(error) + ").");
    stale_check = &impl::check_timers;
    stale_check_argument_ = this;
}

DNSServiceErrorType bonjour_browser::impl::open_again(DNSServiceRef* ref) {
    return DNSServiceBrowse(ref, dnssd::flag_wake_on_resolve, interface_index_, type_.c_str(),
                            has_domain_ ? domain_.c_str() : nullptr, &impl::browse_reply, this);
}

void bonjour_browser::impl::reopened() {
    // What the daemon knew went with it: each instance must be reported again to stay.
    for (auto& entry : history_->announced)
        entry.second.confirmed = false;
    history_->retries.clear();
    settle_at_ = client_->time().now() + client_->time().settle_after();
}

void bonjour_browser::impl::check_timers(void* browse) {
    auto* self = static_cast<impl*>(browse);
    browse_history& history = *self->history_;
    const std::chrono::nanoseconds now = self->client_->time().now();
    if (self->settle_at_.count() && now >= self->settle_at_) {
        self->settle_at_ = {};
        for (auto entry = history.announced.begin(); entry != history.announced.end();) {
            if (entry->second.confirmed) {
                ++entry;
                continue;
            }
            auto [key, instance] = *entry;
            entry = history.announced.erase(entry);
            history.withdrawn[key] = ++history.events;
            self->listener_->remove(key.first, key.second.c_str(), instance.type.c_str());
        }
    }
    std::vector<browse_history::retry> due;
    for (auto entry = history.retries.begin(); entry != history.retries.end();) {
        if (entry->due > now) {
            ++entry;
            continue;
        }
        if (history.current(entry->instance, entry->started_at))
            due.push_back(*entry);
        entry = history.retries.erase(entry);
    }
    for (const browse_history::retry& retry : due)
        self->start_resolve(retry.flags, retry.instance.first, retry.instance.second.c_str(),
                            retry.type.c_str(), retry.domain.c_str(), retry.attempt);
}
bonjour_browser::impl::~impl() = default;

void DNSSD_API bonjour_browser::impl::browse_reply(DNSServiceRef, DNSServiceFlags flags,
                                                   std::uint32_t interface_index,
                                                   DNSServiceErrorType error, const char* name,
                                                   const char* type, const char* domain,
                                                   void* context) {
    guarded_reply([&] {
        static_cast<impl*>(context)->on_browse(flags, interface_index, error, answer_text(name),
                                               answer_text(type), answer_text(domain));
    });
}

void bonjour_browser::impl::on_browse(DNSServiceFlags flags, std::uint32_t interface_index,
                                      DNSServiceErrorType error, const char* name, const char* type,
                                      const char* domain) {
    if (error != 0) {
        // A browse ends in an error only when the daemon has gone.
        ZEROCONF_LOG(3, "errorCode = %d\n", error);
        lose(error);
        return;
    }
    if (!name_filter_.empty()) {
        if (name_filter_ != name)
            return;
        // A later announcement supersedes the resolves of earlier ones.
        ++history_->generation;
    }
    ++history_->events;
    const browse_history::instance_key key{interface_index, name};
    if (flags & dnssd::flag_add) {
        history_->announced[key] = {history_->events, type, true};
        start_resolve(flags, interface_index, name, type, domain);
        return;
    }
    // A resolve still under way for this instance must not report a server that has left.
    history_->withdrawn[key] = history_->events;
    history_->announced.erase(key);
    listener_->remove(interface_index, name, type);
}

void bonjour_browser::impl::start_resolve(DNSServiceFlags flags, std::uint32_t interface_index,
                                          const char* name, const char* type, const char* domain,
                                          unsigned attempt) {
    auto resolver = boost::make_shared<bonjour_resolver>(
        client_, type, listener_, history_, reconfirm_,
        browse_history::retry{
            {}, attempt, flags, {interface_index, name}, type, domain, history_->events});
    auto context = std::make_unique<resolver_context>(resolver);
    if (context->start(flags, interface_index, name, type, domain)) {
        resolver->add_dns_service();
        context.release();  // DNS-SD holds it now; its replies destroy it
    } else {
        abandoned_.push_back(std::move(context));
    }
}

bonjour_resolver::bonjour_resolver(boost::shared_ptr<bonjour_client> owner, std::string type,
                                   boost::shared_ptr<browser_listener> listener,
                                   boost::shared_ptr<browse_history> history, bool reconfirm,
                                   browse_history::retry announcement)
    : dns_service(std::move(owner)),
      type_(std::move(type)),
      listener_(std::move(listener)),
      history_(std::move(history)),
      generation_value_(history_->generation),
      reconfirm_(reconfirm),
      announced_(std::move(announcement)) {}

resolver_context::resolver_context(boost::shared_ptr<bonjour_resolver> resolver)
    : resolver_(std::move(resolver)) {}

resolver_context::~resolver_context() {
    resolver_->stale_check_argument_ = nullptr;
    resolver_->remove_dns_service();
}

void resolver_context::fail() {
    browse_history::retry retry = resolver_->announced_;
    // Avahi fails a resolve while the host's address is still being announced, and says
    // nothing more of an instance it has already reported.
    if (retry.attempt < browse_history::max_retries) {
        const zeroconf::clock& time = resolver_->owner()->time();
        retry.due = time.now() + time.retry_after() * (1 << retry.attempt);
        ++retry.attempt;
        resolver_->history_->retries.push_back(std::move(retry));
    }
    delete this;
}

void resolver_context::mark_started() {
    active_ = true;
    start_time_ = resolver_->owner()->time().now();
}

bool resolver_context::start(DNSServiceFlags flags, std::uint32_t interface_index, const char* name,
                             const char* type, const char* domain) {
    DNSServiceErrorType error =
        DNSServiceResolve(&resolver_->sd_ref_, flags, interface_index, name, type, domain,
                          &resolver_context::resolve_reply, this);
    mark_started();
    resolver_->stale_check = &resolver_context::check_stale;
    resolver_->stale_check_argument_ = this;
    if (error == 0)
        return true;
    ZEROCONF_LOG(3, "DNSServiceResolve() failed (%d)\n", error);
    return false;
}

void resolver_context::check_stale(void* argument) {
    auto* context = static_cast<resolver_context*>(argument);
    const zeroconf::clock& time = context->resolver_->owner()->time();
    if (!context->active_ || time.now() - context->start_time_ < time.stale_after())
        return;
    ZEROCONF_LOG(3,
                 "Bonjour has left a query incomplete. We need to clean up the leftover socket: "
                 "%d\n",
                 static_cast<int>(DNSServiceRefSockFD(context->resolver_->sd_ref_)));
    delete context;
}

void DNSSD_API resolver_context::resolve_reply(DNSServiceRef, DNSServiceFlags,
                                               std::uint32_t interface_index,
                                               DNSServiceErrorType error, const char* fullname,
                                               const char* host, std::uint16_t port,
                                               std::uint16_t txt_length, const unsigned char* txt,
                                               void* context) {
    guarded_reply([&] {
        static_cast<resolver_context*>(context)->on_resolve(
            interface_index, error, answer_text(fullname), answer_text(host), port, txt_length,
            txt);
    });
}

void resolver_context::on_resolve(std::uint32_t interface_index, DNSServiceErrorType error,
                                  const char* fullname, const char* host, std::uint16_t port,
                                  std::uint16_t txt_length, const unsigned char* txt) {
    // An error answer may name nothing at all (Avahi gives up on a host without an address).
    if (error != 0) {
        ZEROCONF_LOG(3, "errorCode = %d\n", error);
        fail();
        return;
    }
    std::string instance;
    try {
        instance = instance_part(fullname);
    } catch (...) {
        delete this;  // the chain ends here; the poll loop logs the name
        throw;
    }
    bonjour_resolver& resolver = *resolver_;
    resolver.interface_index_ = interface_index;
    resolver.name_ = unescape_instance_name(instance);
    resolver.host_ = host;
    resolver.port_ = ntohs(port);
    parse_txt_record(txt_length, txt, resolver.txt_);

    // The query reuses sd_ref_, so the resolver stays registered and is waited on next cycle.
    DNSServiceRef resolve = resolver.current_ref();
    resolver.replace_ref(nullptr);
    DNSServiceRefDeallocate(resolve);
    DNSServiceRef query = nullptr;
    error = DNSServiceQueryRecord(&query, 0, interface_index, host, dnssd::type_a, dnssd::class_in,
                                  &resolver_context::query_reply, this);
    resolver.replace_ref(query);
    mark_started();
    if (error == 0)
        return;
    ZEROCONF_LOG(3, "DNSServiceQueryRecord failed (%d)\n", error);
    if (error == dnssd::err_bad_param) {
        ZEROCONF_LOG(3,
                     "DNSServiceQueryRecord failed (%i = wrong parameters)\n"
                     "resolve_reply(n/a, %i, %s, %s, %u, %u, %p, %p)\n"
                     "DNSServiceQueryRecord(%p, %i, %i, %s, %i, %i, %p, %p)\n",
                     error, 0, fullname, host, static_cast<unsigned>(port),
                     static_cast<unsigned>(txt_length), static_cast<const void*>(txt),
                     static_cast<void*>(this), static_cast<void*>(&resolver.sd_ref_), 0,
                     static_cast<int>(interface_index), host, static_cast<int>(dnssd::type_a),
                     static_cast<int>(dnssd::class_in),
                     reinterpret_cast<void*>(&resolver_context::query_reply),
                     static_cast<void*>(this));
    } else {
        ZEROCONF_LOG(3, "DNSServiceQueryRecord failed (%d)\n", error);
    }
    delete this;
}

void DNSSD_API resolver_context::query_reply(DNSServiceRef, DNSServiceFlags,
                                             std::uint32_t interface_index,
                                             DNSServiceErrorType error, const char* fullname,
                                             std::uint16_t type, std::uint16_t record_class,
                                             std::uint16_t length, const void* data, std::uint32_t,
                                             void* context) {
    guarded_reply([&] {
        auto* self = static_cast<resolver_context*>(context);
        if (error != 0) {
            ZEROCONF_LOG(3, "errorCode = %d\n", error);
            self->fail();
            return;
        }
        self->on_query(interface_index, error, answer_text(fullname), type, record_class, length,
                       data);
    });
}

void resolver_context::on_query(std::uint32_t interface_index, DNSServiceErrorType,
                                const char* fullname, std::uint16_t type,
                                std::uint16_t record_class, std::uint16_t length,
                                const void* data) {
    if (length != 4) {
        // Left open: a later A answer may still come, else the stale check ends it.
        ZEROCONF_LOG(3, "Bonjour DNSServiceQueryRecord IPV6 unmanaged qr_reply!\n");
        return;
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    char address[16];
    std::snprintf(address, sizeof(address), "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2], bytes[3]);

    bonjour_resolver& resolver = *resolver_;
    if (resolver.reconfirm_) {
        ZEROCONF_LOG(4,
                     "%s seems out dated -> force daemon to verify the validity of this record\n",
                     fullname);
        DNSServiceReconfirmRecord(dnssd::flag_force, interface_index, fullname, type, record_class,
                                  4, data);
    }
    auto withdrawal = resolver.history_->withdrawn.find(resolver.announced_.instance);
    bool withdrawn = withdrawal != resolver.history_->withdrawn.end() &&
                     withdrawal->second > resolver.announced_.started_at;
    if (resolver.generation_value_ == resolver.history_->generation && !withdrawn)
        resolver.listener_->add(resolver.interface_index_, resolver.name_.c_str(),
                                resolver.type_.c_str(), resolver.host_.c_str(), address,
                                resolver.port_, resolver.txt_);
    // One address per resolve: the query ends here.
    delete this;
}

}  // namespace zeroconf
