#pragma once
// The Bonjour client, the base of every DNS-SD operation, and the poll thread that serves them.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>
#include <boost/weak_ptr.hpp>

#include "dnssd.h"
#include "zeroconf/client.h"

namespace zeroconf {

class dns_service;

/// \brief What the poll thread shares with its client. Held by both, so that a client
/// destroyed on its own poll thread leaves the thread something valid to finish with.
struct poll_state {
    explicit poll_state(boost::shared_ptr<const zeroconf::clock> time) : time(std::move(time)) {}

    boost::shared_ptr<const zeroconf::clock> time;
    std::atomic<bool> stop{false};
    // Weak: the poll thread never keeps an operation alive; in order of registration.
    std::vector<boost::weak_ptr<dns_service>> registry;
    // Operations closed on another thread, deallocated by the poll thread between dispatches:
    // DNS-SD must never free a reference that the poll thread may be dispatching.
    std::vector<DNSServiceRef> closed;
    // Browses and registrations the DNS-SD daemon dropped when it went away, re-opened once it
    // answers again; out of the registry meanwhile.
    std::vector<boost::weak_ptr<dns_service>> lost;
    std::chrono::nanoseconds next_reopen{0};
    boost::thread::id poll_thread;
    boost::recursive_mutex mutex;
};

/// \brief The client of the system's DNS-SD service, with one poll thread.
class bonjour_client : public client {
public:
    /// More live operations than this end the poll thread.
    static constexpr int max_operations = 512;

    bonjour_client(std::uint32_t interface_index, boost::shared_ptr<const zeroconf::clock> time);
    ~bonjour_client() override;

    boost::shared_ptr<browser> create_browser(const std::string& name_filter,
                                              const std::string& type, const std::string& domain,
                                              const std::string& subtype,
                                              boost::shared_ptr<browser_listener> listener,
                                              bool reconfirm) override;
    boost::shared_ptr<browser> create_browser(const std::string& name_filter,
                                              const std::string& type, const std::string& subtype,
                                              boost::shared_ptr<browser_listener> listener,
                                              bool reconfirm) override;
    boost::shared_ptr<hostname_browser> create_hostname_browser(
        const std::string& host_name, boost::shared_ptr<hostname_listener> listener) override;
    boost::shared_ptr<service> create_service(const std::string& name, const std::string& type,
                                              std::uint16_t port,
                                              const std::vector<std::string>& subtypes,
                                              const std::vector<std::string>& txt_entries,
                                              service::status_callback callback) override;

    std::uint32_t interface_index() const { return interface_index_; }
    const zeroconf::clock& time() const { return *state_->time; }
    poll_state& state() { return *state_; }

private:
    boost::shared_ptr<bonjour_client> self();
    void log_factory_error(const std::string& first, const std::string& second,
                           const std::exception& error) const;
    boost::shared_ptr<browser> make_browser(const std::string& name_filter, const std::string& type,
                                            const char* domain, const std::string& subtype,
                                            std::uint32_t interface,
                                            boost::shared_ptr<browser_listener> listener,
                                            bool reconfirm);

    std::uint32_t interface_index_;
    boost::shared_ptr<poll_state> state_;
    boost::thread poll_thread_;
};

/// \brief One DNS-SD operation served by a client's poll thread. Owners call
/// add_dns_service() once the operation is open and remove_dns_service() before they drop
/// their last reference.
class dns_service : public boost::enable_shared_from_this<dns_service> {
public:
    explicit dns_service(boost::shared_ptr<bonjour_client> owner);
    virtual ~dns_service();
    dns_service(const dns_service&) = delete;
    dns_service& operator=(const dns_service&) = delete;

    virtual void add_dns_service();
    void remove_dns_service();
    /// sd_ref_ as the poll thread may read it at the same time.
    DNSServiceRef current_ref();
    /// Puts another operation in sd_ref_ (the poll thread's own callbacks only).
    void replace_ref(DNSServiceRef ref);
    /// The daemon went away (error is what it said): the operation is closed and, when it can
    /// be, opened again once the daemon answers. The poll thread only.
    void lose(DNSServiceErrorType error);
    /// Opens the operation again after lose(); false while the daemon does not answer.
    bool reopen();
    const boost::shared_ptr<bonjour_client>& owner() const { return client_; }

    DNSServiceRef sd_ref_ = nullptr;
    // Called by the poll thread with stale_check_argument_ while the socket is quiet.
    void* stale_check_argument_ = nullptr;
    boost::function<void(void*)> stale_check;

protected:
    /// Opens the operation in ref as at first; operations that cannot be opened again refuse.
    virtual DNSServiceErrorType open_again(DNSServiceRef*) {
        return dnssd::err_service_not_running;
    }
    /// Told on the poll thread that the operation is open again.
    virtual void reopened() {}

    boost::shared_ptr<bonjour_client> client_;
};

/// A name from a DNS-SD answer: error answers may carry null names.
inline const char* answer_text(const char* text) {
    return text ? text : "";
}

/// The poll loop's line for an exception out of a DNS-SD reply.
void log_reply_exception();

/// Runs a DNS-SD reply's body; nothing may unwind into the DNS-SD library's C frames.
template <typename Body>
void guarded_reply(Body&& body) noexcept {
    try {
        body();
    } catch (...) {
        log_reply_exception();
    }
}

}  // namespace zeroconf
