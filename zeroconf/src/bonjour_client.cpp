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
#include <sys/select.h>
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

// The socket of an operation when sorting ready from not ready; -1 when there is none.
dnssd::socket_type sorting_socket(const dns_service& operation) {
    try {
        return operation.sd_ref_ ? DNSServiceRefSockFD(operation.sd_ref_) : -1;
    } catch (...) {
        ZEROCONF_LOG(3, "exception in DNSServiceRefSockFD.2\n");
        return -1;
    }
}

bool fits_read_set(dnssd::socket_type socket) {
#ifdef _WIN32
    (void)socket;
    return true;
#else
    return socket >= 0 && socket < FD_SETSIZE;
#endif
}

// One cycle of the poll thread; false once the client has gone.
bool poll_once(poll_state& state) {
    if (state.stop)
        return false;

    fd_set read_set;
    FD_ZERO(&read_set);
    dnssd::socket_type highest = -1;
    int valid = 0;
    int in_set = 0;
    {
        registry_lock lock(state.mutex);
        for (const auto& entry : state.registry) {
            boost::shared_ptr<dns_service> operation = entry.lock();
            if (!operation)
                continue;
            dnssd::socket_type socket = -1;
            try {
                socket = operation->sd_ref_ ? DNSServiceRefSockFD(operation->sd_ref_) : -1;
            } catch (...) {
                ZEROCONF_LOG(3, "exception in DNSServiceRefSockFD.1\n");
                continue;
            }
            if (socket == -1 || !operation->sd_ref_) {
                ZEROCONF_LOG(3, "Invalid file descriptor or sd_ref_; fd = %i; sd_ref_ = %p\n",
                             static_cast<int>(socket), static_cast<void*>(operation->sd_ref_));
                continue;
            }
            if (socket > highest)
                highest = socket;
            if (in_set < bonjour_client::max_operations && fits_read_set(socket)) {
                FD_SET(socket, &read_set);
                ++in_set;
            }
            if (++valid > bonjour_client::max_operations) {
                ZEROCONF_LOG(3, "fdset too small\n");
                throw std::runtime_error("fdset too small.");
            }
        }
    }

    std::chrono::nanoseconds wait = state.time->poll_wait();
    if (highest == -1) {
        std::this_thread::sleep_for(wait);
        return true;
    }

    timeval timeout{};
    timeout.tv_sec = static_cast<decltype(timeout.tv_sec)>(wait.count() / 1000000000);
    timeout.tv_usec = static_cast<decltype(timeout.tv_usec)>(wait.count() % 1000000000 / 1000);
    int ready_count = select(static_cast<int>(highest) + 1, &read_set, nullptr, nullptr, &timeout);
    if (state.stop || ready_count == 0)
        return true;
    if (ready_count < 0) {
        int code = 0;
        std::string text = last_socket_error(code);
        ZEROCONF_LOG(3, "select() returned %d errno %d %s\n", ready_count, code, text.c_str());
        return true;
    }

    std::vector<boost::weak_ptr<dns_service>> ready;
    std::vector<boost::weak_ptr<dns_service>> not_ready;
    {
        registry_lock lock(state.mutex);
        for (const auto& entry : state.registry) {
            if (ready_count <= 0)
                break;
            boost::shared_ptr<dns_service> operation = entry.lock();
            if (!operation)
                continue;
            dnssd::socket_type socket = sorting_socket(*operation);
            if (socket != -1 && fits_read_set(socket) && FD_ISSET(socket, &read_set)) {
                ready.push_back(entry);
                --ready_count;
            } else {
                not_ready.push_back(entry);
            }
        }
    }

    for (const auto& entry : ready) {
        boost::shared_ptr<dns_service> operation = entry.lock();
        if (!operation) {
            ZEROCONF_LOG(4, "dns_service has been destroyed\n");
            continue;
        }
        try {
            DNSServiceErrorType result = DNSServiceProcessResult(operation->sd_ref_);
            if (result == dnssd::err_bad_param)
                ZEROCONF_LOG(8, "DNSServiceProcessResult returned %d\n", result);
            else if (result != 0)
                ZEROCONF_LOG(3, "DNSServiceProcessResult returned %d\n", result);
        } catch (...) {
            log_reply_exception();
        }
    }

    for (const auto& entry : not_ready) {
        boost::shared_ptr<dns_service> operation = entry.lock();
        if (operation && operation->stale_check_argument_ && operation->stale_check)
            operation->stale_check(operation->stale_check_argument_);
    }
    return true;
}

void poll(boost::shared_ptr<poll_state> state) {
    try {
        while (poll_once(*state)) {
        }
    } catch (const std::runtime_error&) {
        // Too many operations: already logged; the thread ends rather than the program.
    }
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
    }
    if (sd_ref_) {
        DNSServiceRefDeallocate(sd_ref_);
        sd_ref_ = nullptr;
    }
}

}  // namespace zeroconf
