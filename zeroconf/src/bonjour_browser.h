#pragma once
// The service browser and the chain each announcement starts: resolve, then the A query.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "bonjour_client.h"
#include "zeroconf/browser.h"

namespace zeroconf {

/// The instance part of a DNS-SD full name, up to its first unescaped dot (escapes kept).
/// Throws std::runtime_error "illegal service name" when there is no such dot.
std::string instance_part(const char* fullname);

/// Undoes the DNS escapes of an instance name: "\." and "\\" and decimal "\DDD".
std::string unescape_instance_name(const std::string& instance);

/// \brief A browse made through bonjour_client::create_browser.
class bonjour_browser : public browser {
public:
    class impl;

    bonjour_browser(boost::shared_ptr<bonjour_client> owner,
                    boost::shared_ptr<browser_listener> listener, const std::string& name_filter,
                    const std::string& type, const char* domain, std::uint32_t interface_index,
                    bool reconfirm);
    ~bonjour_browser() override;

    void refresh() override;

private:
    boost::shared_ptr<impl> impl_;
};

class resolver_context;

/// \brief What a browse shares with the resolves it started; read and written on the poll
/// thread only.
struct browse_history {
    using instance_key = std::pair<std::uint32_t, std::string>;  // interface, name
    // A resolve whose chain ended in an error answer, to be started again.
    struct retry {
        std::chrono::nanoseconds due;
        unsigned attempt;
        DNSServiceFlags flags;
        instance_key instance;
        std::string type, domain;
        std::uint64_t started_at;
    };
    static constexpr unsigned max_retries = 4;

    // Raised by every announcement of the filtered name: older resolves are superseded.
    std::uint32_t generation = 0;
    // Counts browse events; a withdrawal records the count at which it came, per interface and
    // name, so that a resolve begun before it is recognised when it answers.
    std::uint64_t events = 0;
    std::map<instance_key, std::uint64_t> withdrawn;
    // The instances announced and not withdrawn: the count of their latest announcement, and
    // whether a browse re-opened after the daemon's loss has reported them again.
    struct instance {
        std::uint64_t announced_at;
        std::string type;
        bool confirmed;
    };
    std::map<instance_key, instance> announced;
    std::vector<retry> retries;

    /// Whether an announcement counted at started_at is still the latest of its instance.
    bool current(const instance_key& key, std::uint64_t started_at) const {
        auto found = announced.find(key);
        return found != announced.end() && found->second.announced_at <= started_at;
    }
};

/// \brief The open browse and the state shared with the resolves it starts.
class bonjour_browser::impl : public browser, public dns_service {
public:
    impl(boost::shared_ptr<bonjour_client> owner, boost::shared_ptr<browser_listener> listener,
         const std::string& name_filter, const std::string& type, const char* domain,
         std::uint32_t interface_index, bool reconfirm);
    ~impl() override;

private:
    DNSServiceErrorType open_again(DNSServiceRef* ref) override;
    void reopened() override;
    /// The poll thread's timer: removes what a re-opened browse did not report again, and
    /// starts the resolves due again.
    static void check_timers(void* browse);
    static void DNSSD_API browse_reply(DNSServiceRef sd_ref, DNSServiceFlags flags,
                                       std::uint32_t interface_index, DNSServiceErrorType error,
                                       const char* name, const char* type, const char* domain,
                                       void* context);
    void on_browse(DNSServiceFlags flags, std::uint32_t interface_index, DNSServiceErrorType error,
                   const char* name, const char* type, const char* domain);
    void start_resolve(DNSServiceFlags flags, std::uint32_t interface_index, const char* name,
                       const char* type, const char* domain, unsigned attempt = 0);

    std::string name_filter_;
    std::string type_;
    std::string domain_;
    bool has_domain_;
    std::uint32_t interface_index_;
    std::chrono::nanoseconds settle_at_{0};
    boost::shared_ptr<browse_history> history_;
    bool reconfirm_;
    // Resolves DNS-SD refused to start: never served, freed with the browse.
    std::vector<std::unique_ptr<resolver_context>> abandoned_;
};

/// \brief Resolves one announced instance, then queries its IPv4 address, in one sd_ref_.
class bonjour_resolver : public dns_service {
public:
    bonjour_resolver(boost::shared_ptr<bonjour_client> owner, std::string type,
                     boost::shared_ptr<browser_listener> listener,
                     boost::shared_ptr<browse_history> history, bool reconfirm,
                     browse_history::retry announcement);

private:
    friend class resolver_context;

    std::string type_;
    boost::shared_ptr<browser_listener> listener_;
    boost::shared_ptr<browse_history> history_;
    std::uint32_t generation_value_;
    bool reconfirm_;
    // The browse event as it started this resolve, and again should it fail.
    browse_history::retry announced_;

    std::uint32_t interface_index_ = 0;
    std::string name_;
    std::string host_;
    std::uint16_t port_ = 0;
    std::vector<std::string> txt_;
};

/// \brief Owns a resolver while its operations run; the context pointer DNS-SD hands back.
/// Destroying it closes whatever operation is open.
class resolver_context {
public:
    explicit resolver_context(boost::shared_ptr<bonjour_resolver> resolver);
    virtual ~resolver_context();
    resolver_context(const resolver_context&) = delete;
    resolver_context& operator=(const resolver_context&) = delete;

    /// Opens the resolve; false (logged) when DNS-SD refuses it.
    bool start(DNSServiceFlags flags, std::uint32_t interface_index, const char* name,
               const char* type, const char* domain);
    /// The stale check the poll thread runs while the operation's socket is quiet.
    static void check_stale(void* context);

private:
    static void DNSSD_API resolve_reply(DNSServiceRef sd_ref, DNSServiceFlags flags,
                                        std::uint32_t interface_index, DNSServiceErrorType error,
                                        const char* fullname, const char* host, std::uint16_t port,
                                        std::uint16_t txt_length, const unsigned char* txt,
                                        void* context);
    static void DNSSD_API query_reply(DNSServiceRef sd_ref, DNSServiceFlags flags,
                                      std::uint32_t interface_index, DNSServiceErrorType error,
                                      const char* fullname, std::uint16_t type,
                                      std::uint16_t record_class, std::uint16_t length,
                                      const void* data, std::uint32_t ttl, void* context);
    void on_resolve(std::uint32_t interface_index, DNSServiceErrorType error, const char* fullname,
                    const char* host, std::uint16_t port, std::uint16_t txt_length,
                    const unsigned char* txt);
    void on_query(std::uint32_t interface_index, DNSServiceErrorType error, const char* fullname,
                  std::uint16_t type, std::uint16_t record_class, std::uint16_t length,
                  const void* data);
    void mark_started();
    /// The chain ended in an error answer: tried again later while the instance is announced.
    void fail();

    std::chrono::nanoseconds start_time_{0};
    bool active_ = false;
    boost::shared_ptr<bonjour_resolver> resolver_;
};

}  // namespace zeroconf
