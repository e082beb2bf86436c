#ifdef _WIN32
// Winsock's select set holds as many sockets as the poll thread serves.
#define FD_SETSIZE 512
#endif

#include "bonjour_client.h"

#include <sys/types.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

#include <boost/make_shared.hpp>
#include <boost/thread/locks.hpp>

#include "bonjour_browser.h"
#include "bonjour_hostname_browser.h"
#include "bonjour_service.h"
#include "zeroconf_log.h"

#ifdef _WIN32
#include <winsock2.h>
#else
#include <poll.h>
#endif

namespace zeroconf {

namespace {

using registry_lock = boost::lock_guard<boost::recursive_mutex>;

std::string last_socket_error(int& code) {
    char text[512] = {};
#ifdef _WIN32
    code = WSAGetLastError();
    if (!FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                        static_cast<DWORD>(code), 0, text, sizeof(text) - 1, nullptr))
        return "Unable to find error message";
#else
    code = errno;
    const char* message = std::strerror(code);
    if (!message || !*message)
        return "Unable to find error message";
    std::strncpy(text, message, sizeof(text) - 1);
#endif
    return text;
}

// Deallocates what other threads closed since the last cycle; the poll thread only.
void deallocate_closed(poll_state& state) {
    std::vector<DNSServiceRef> closed;
    {
        registry_lock lock(state.mutex);
        closed.swap(state.closed);
    }
    for (DNSServiceRef ref : closed)
        DNSServiceRefDeallocate(ref);
}

// Erases operation's entry; false when it has none.
bool erase_entry(std::vector<boost::weak_ptr<dns_service>>& entries, const dns_service* operation) {
    for (auto entry = entries.begin(); entry != entries.end(); ++entry)
        if (entry->lock().get() == operation) {
            entries.erase(entry);
            return true;
        }
    return false;
}

struct waited_operation {
    boost::weak_ptr<dns_service> operation;
    DNSServiceRef ref;
    dnssd::socket_type socket;
};

// Waits until some sockets are readable; their entries are marked in ready. The result is
// what the system call returned.
int wait_readable(const std::vector<waited_operation>& waited, std::vector<bool>& ready,
                  std::chrono::nanoseconds wait) {
    ready.assign(waited.size(), false);
#ifdef _WIN32
    fd_set read_set;
    FD_ZERO(&read_set);
    for (const waited_operation& entry : waited)
        FD_SET(entry.socket, &read_set);
    timeval timeout{};
    timeout.tv_sec = static_cast<long>(wait.count() / 1000000000);
    timeout.tv_usec = static_cast<long>(wait.count() % 1000000000 / 1000);
    int result = select(0, &read_set, nullptr, nullptr, &timeout);
    for (std::size_t i = 0; result > 0 && i < waited.size(); ++i)
        ready[i] = FD_ISSET(waited[i].socket, &read_set) != 0;
#else
    // poll, not select: descriptor numbers above 1023 are common in a busy process.
    std::vector<pollfd> sockets(waited.size());
    for (std::size_t i = 0; i < waited.size(); ++i)
        sockets[i] = {waited[i].socket, POLLIN, 0};
    int result =
        ::poll(sockets.data(), sockets.size(),
               static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(wait).count()));
    // A hung-up or failed socket is served too: reading it is what reports the failure.
    for (std::size_t i = 0; result > 0 && i < waited.size(); ++i)
        ready[i] = (sockets[i].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0;
#endif
    return result;
}

// While the daemon is away, tries every so often to open what it dropped; quiet until it
// answers.
void reopen_lost(poll_state& state) {
    std::vector<boost::weak_ptr<dns_service>> lost;
    {
        registry_lock lock(state.mutex);
        if (state.lost.empty() || state.time->now() < state.next_reopen)
            return;
        state.next_reopen = state.time->now() + state.time->reopen_every();
        lost = state.lost;
    }
    bool answered = false;
    for (const auto& entry : lost)
        if (boost::shared_ptr<dns_service> operation = entry.lock())
            answered = operation->reopen() || answered;
    if (answered)
        ZEROCONF_LOG(5, "DNS-SD daemon is back: browses and registrations opened again\n");
}

// One cycle of the poll thread; false once the client has gone.
bool poll_once(poll_state& state) {
    if (state.stop)
        return false;
    deallocate_closed(state);
    reopen_lost(state);

    std::vector<waited_operation> waited;
    int valid = 0;
    {
        registry_lock lock(state.mutex);
        for (const auto& entry : state.registry) {
            boost::shared_ptr<dns_service> operation = entry.lock();
            if (!operation)
                continue;
            dnssd::socket_type socket = dnssd::no_socket;
            try {
                socket =
                    operation->sd_ref_ ? DNSServiceRefSockFD(operation->sd_ref_) : dnssd::no_socket;
            } catch (...) {
                ZEROCONF_LOG(3, "exception in DNSServiceRefSockFD.1\n");
                continue;
            }
            if (socket == dnssd::no_socket || !operation->sd_ref_) {
                ZEROCONF_LOG(3, "Invalid file descriptor or sd_ref_; fd = %i; sd_ref_ = %p\n",
                             static_cast<int>(socket), static_cast<void*>(operation->sd_ref_));
                continue;
            }
            if (waited.size() < static_cast<std::size_t>(bonjour_client::max_operations))
                waited.push_back({entry, operation->sd_ref_, socket});
            if (++valid > bonjour_client::max_operations) {
                ZEROCONF_LOG(3, "fdset too small\n");
                throw std::runtime_error("fdset too small.");
            }
        }
    }

    std::chrono::nanoseconds wait = state.time->poll_wait();
    if (waited.empty()) {
        std::this_thread::sleep_for(wait);
        return true;
    }

    std::vector<bool> readable;
    int ready_count = wait_readable(waited, readable, wait);
    if (state.stop)
        return true;
    if (ready_count < 0) {
        int code = 0;
        std::string text = last_socket_error(code);
        ZEROCONF_LOG(3, "select() returned %d errno %d %s\n", ready_count, code, text.c_str());
        return true;
    }

    // Every quiet operation gets its checks, also in a cycle without answers: they are timers.
    std::vector<const waited_operation*> ready;
    std::vector<const waited_operation*> not_ready;
    for (std::size_t i = 0; i < waited.size(); ++i)
        (readable[i] ? ready : not_ready).push_back(&waited[i]);

    for (const waited_operation* entry : ready) {
        boost::shared_ptr<dns_service> operation = entry->operation.lock();
        // Closed since the wait (by a callback of this cycle or another thread): not served.
        if (!operation || operation->current_ref() != entry->ref) {
            ZEROCONF_LOG(4, "dns_service has been destroyed\n");
            continue;
        }
        try {
            DNSServiceErrorType result = DNSServiceProcessResult(entry->ref);
            if (result == dnssd::err_bad_param)
                ZEROCONF_LOG(8, "DNSServiceProcessResult returned %d\n", result);
            else if (result != 0)
                ZEROCONF_LOG(3, "DNSServiceProcessResult returned %d\n", result);
        } catch (...) {
            log_reply_exception();
        }
        deallocate_closed(state);
    }

    for (const waited_operation* entry : not_ready) {
        boost::shared_ptr<dns_service> operation = entry->operation.lock();
        if (operation && operation->stale_check_argument_ && operation->stale_check)
            operation->stale_check(operation->stale_check_argument_);
    }
    return true;
}

void poll(boost::shared_ptr<poll_state> state) {
    {
        registry_lock lock(state->mutex);
        state->poll_thread = boost::this_thread::get_id();
    }
    try {
        while (poll_once(*state)) {
        }
    } catch (const std::runtime_error&) {
        // Too many operations: already logged; the thread ends rather than the program.
    }
    deallocate_closed(*state);
}

}  // namespace

void log_reply_exception() {
    ZEROCONF_LOG(3, "exception in DNSServiceProcessResult\n");
}

boost::shared_ptr<client> client::create(int interface_index) {
    return create(interface_index, boost::make_shared<const zeroconf::clock>());
}

boost::shared_ptr<client> client::create(int interface_index,
                                         boost::shared_ptr<const zeroconf::clock> time) {
    std::uint32_t index = interface_index < 0 ? 0 : static_cast<std::uint32_t>(interface_index);
    return boost::make_shared<bonjour_client>(index, std::move(time));
}

bonjour_client::bonjour_client(std::uint32_t interface_index,
                               boost::shared_ptr<const zeroconf::clock> time)
    : interface_index_(interface_index),
      state_(boost::make_shared<poll_state>(std::move(time))),
      poll_thread_(&poll, state_) {}

bonjour_client::~bonjour_client() {
    state_->stop = true;
    if (boost::this_thread::get_id() == poll_thread_.get_id()) {
        // The last reference went inside a callback: the thread ends after this cycle.
        // The registry is left to the thread, which may be walking it further up the stack.
        ZEROCONF_LOG(6, "destroyed from poll_thread_\n");
        poll_thread_.detach();
        return;
    }
    poll_thread_.join();
    // A thread ended early (too many operations) left what was closed since to us.
    deallocate_closed(*state_);
    registry_lock lock(state_->mutex);
    state_->registry.clear();
}

boost::shared_ptr<bonjour_client> bonjour_client::self() {
    return boost::static_pointer_cast<bonjour_client>(shared_from_this());
}

void bonjour_client::log_factory_error(const std::string& first, const std::string& second,
                                       const std::exception& error) const {
    const char* text = error.what();
    ZEROCONF_LOG(3, "[%i] %s  %s; runtime error %s\n", static_cast<int>(interface_index_),
                 first.c_str(), second.c_str(), text && *text ? text : "Unknown exception");
}

boost::shared_ptr<browser> bonjour_client::make_browser(
    const std::string& name_filter, const std::string& type, const char* domain,
    const std::string& subtype, std::uint32_t interface,
    boost::shared_ptr<browser_listener> listener, bool reconfirm) {
    std::string full_type = subtype.empty() ? type : type + "," + subtype;
    try {
        return boost::make_shared<bonjour_browser>(self(), std::move(listener), name_filter,
                                                   full_type, domain, interface, reconfirm);
    } catch (const std::runtime_error& error) {
        log_factory_error(name_filter, type, error);
        return {};
    }
}

boost::shared_ptr<browser> bonjour_client::create_browser(
    const std::string& name_filter, const std::string& type, const std::string& domain,
    const std::string& subtype, boost::shared_ptr<browser_listener> listener, bool reconfirm) {
    return make_browser(name_filter, type, domain.c_str(), subtype, 0, std::move(listener),
                        reconfirm);
}

boost::shared_ptr<browser> bonjour_client::create_browser(
    const std::string& name_filter, const std::string& type, const std::string& subtype,
    boost::shared_ptr<browser_listener> listener, bool reconfirm) {
    return make_browser(name_filter, type, nullptr, subtype, interface_index_, std::move(listener),
                        reconfirm);
}

boost::shared_ptr<hostname_browser> bonjour_client::create_hostname_browser(
    const std::string& host_name, boost::shared_ptr<hostname_listener> listener) {
    try {
        return boost::make_shared<bonjour_hostname_browser>(self(), host_name, std::move(listener));
    } catch (const std::runtime_error& error) {
        log_factory_error(host_name, std::string(), error);
        return {};
    }
}

boost::shared_ptr<service> bonjour_client::create_service(
    const std::string& name, const std::string& type, std::uint16_t port,
    const std::vector<std::string>& subtypes, const std::vector<std::string>& txt_entries,
    service::status_callback callback) {
    try {
        return boost::make_shared<bonjour_service>(self(), name, type, port, subtypes, txt_entries,
                                                   std::move(callback));
    } catch (const std::runtime_error& error) {
        log_factory_error(name, type, error);
        return {};
    }
}

dns_service::dns_service(boost::shared_ptr<bonjour_client> owner) : client_(std::move(owner)) {}

dns_service::~dns_service() {
    remove_dns_service();
}

void dns_service::add_dns_service() {
    boost::weak_ptr<dns_service> self = shared_from_this();
    registry_lock lock(client_->state().mutex);
    client_->state().registry.push_back(self);
}

void dns_service::remove_dns_service() {
    DNSServiceRef closed = nullptr;
    bool on_poll_thread = false;
    {
        poll_state& state = client_->state();
        registry_lock lock(state.mutex);
        for (auto entry = state.registry.begin(); entry != state.registry.end(); ++entry) {
            boost::shared_ptr<dns_service> operation = entry->lock();
            if (!operation) {
                ZEROCONF_LOG(3,
                             "dns_service::remove_dns_service: must have been called before "
                             "shared_ptr's counter reaches 0\n");
                continue;
            }
            if (operation.get() == this) {
                state.registry.erase(entry);
                break;
            }
        }
        erase_entry(state.lost, this);
        std::swap(closed, sd_ref_);
        on_poll_thread = boost::this_thread::get_id() == state.poll_thread;
        // Another thread's close waits for the poll thread, which may be dispatching it now.
        if (closed && !on_poll_thread) {
            state.closed.push_back(closed);
            return;
        }
    }
    if (closed)
        DNSServiceRefDeallocate(closed);
}

DNSServiceRef dns_service::current_ref() {
    registry_lock lock(client_->state().mutex);
    return sd_ref_;
}

void dns_service::replace_ref(DNSServiceRef ref) {
    registry_lock lock(client_->state().mutex);
    sd_ref_ = ref;
}

void dns_service::lose(DNSServiceErrorType error) {
    poll_state& state = client_->state();
    DNSServiceRef dead = nullptr;
    {
        registry_lock lock(state.mutex);
        if (!erase_entry(state.registry, this))
            return;  // closed by its owner, or lost already
        if (state.lost.empty()) {
            ZEROCONF_LOG(3,
                         "DNS-SD daemon lost (%d); browses and registrations are opened again "
                         "once it answers\n",
                         error);
            state.next_reopen = state.time->now() + state.time->reopen_every();
        }
        state.lost.push_back(shared_from_this());
        std::swap(dead, sd_ref_);
    }
    // Inside its own dispatch on the poll thread, which DNS-SD allows.
    if (dead)
        DNSServiceRefDeallocate(dead);
}

bool dns_service::reopen() {
    DNSServiceRef ref = nullptr;
    if (open_again(&ref) != 0)
        return false;
    {
        poll_state& state = client_->state();
        registry_lock lock(state.mutex);
        if (erase_entry(state.lost, this)) {
            sd_ref_ = ref;
            state.registry.push_back(shared_from_this());
            ref = nullptr;
        }
    }
    if (ref) {
        DNSServiceRefDeallocate(ref);  // its owner closed it meanwhile
        return true;
    }
    reopened();
    return true;
}

}  // namespace zeroconf
