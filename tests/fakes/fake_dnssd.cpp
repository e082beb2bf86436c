// A DNS-SD library for unit tests: answers what the test queues through fake_dnssd_*. Every
// operation has a real descriptor (an eventfd counting its queued answers), so the poll thread
// waits on it as on a daemon's socket. Calls are recorded as their arguments, space-separated.
#include <arpa/inet.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <tuple>
#include <vector>

#include "velmor_dnssd.h"

#define FAKE extern "C" __attribute__((visibility("default")))
using Ref = DNSServiceRef;
using Error = DNSServiceErrorType;
using Flags = DNSServiceFlags;
using u16 = uint16_t;
using u32 = uint32_t;

struct _DNSServiceRef_t {
    _DNSServiceRef_t(const char* function, const char* key) : function(function), key(key) {}
    std::string function, key;
    int fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK);
    bool open = true;
    void *callback = nullptr, *context = nullptr;
    std::deque<std::function<void(Ref)>> pending;
};

namespace {
std::mutex mutex;
std::condition_variable changed;
std::vector<std::unique_ptr<_DNSServiceRef_t>> operations;  // closed ones too: late calls
std::map<std::string, Error> failures;
std::map<std::string, std::string> last_calls;
int delivering = 0;
using lock = std::unique_lock<std::mutex>;

// Text that keeps its null-ness (Avahi's error answers have null names), and bytes.
struct text {
    explicit text(const char* s) : null(!s), value(s ? s : "") {}
    bool null;
    std::string value;
};
struct bytes {
    bytes(const void* data, std::size_t size)
        : value(static_cast<const unsigned char*>(data),
                static_cast<const unsigned char*>(data) + (data ? size : 0)) {}
    std::vector<unsigned char> value;
};
struct address {
    sockaddr_in6 storage;
    bool present;
};
template <typename T>
const T& unwrap(const T& value) {
    return value;
}
const char* unwrap(const text& t) {
    return t.null ? nullptr : t.value.c_str();
}
const unsigned char* unwrap(const bytes& b) {
    return b.value.empty() ? nullptr : b.value.data();
}
const sockaddr* unwrap(const address& a) {
    return a.present ? reinterpret_cast<const sockaddr*>(&a.storage) : nullptr;
}
std::ostream& operator<<(std::ostream& out, const text& t) {
    return out << (t.null ? "(null)" : t.value);
}
std::ostream& operator<<(std::ostream& out, const bytes& b) {
    for (unsigned char byte : b.value)
        out << "0123456789abcdef"[byte >> 4] << "0123456789abcdef"[byte & 15];
    return out;
}

template <typename... Args>
Error record(const char* function, const Args&... args) {
    std::ostringstream line;
    ((line << args << ' '), ...);
    lock hold(mutex);
    last_calls[function] = line.str().substr(0, line.str().size() - 1);
    return failures.count(function) ? failures[function] : 0;
}
template <typename Callback, typename... Args>
Error open(Ref* ref, const char* function, const char* key, Callback callback, void* context,
           const Args&... args) {
    if (Error error = record(function, args...))
        return error;
    lock hold(mutex);
    operations.emplace_back(new _DNSServiceRef_t(function, key ? key : "(null)"));
    operations.back()->callback = reinterpret_cast<void*>(callback);
    operations.back()->context = context;
    *ref = operations.back().get();
    changed.notify_all();
    return 0;
}
Ref find_open(const char* function, const char* key) {
    for (const auto& operation : operations)
        if (operation->open && operation->function == function && (!key || operation->key == key))
            return operation.get();
    return nullptr;
}
// Queues a call of the operation's callback with args (unwrapped) and its context.
template <typename Reply, typename... Args>
int answer(const char* function, const char* key, Args... args) {
    lock hold(mutex);
    Ref operation = find_open(function, key);
    std::uint64_t one = 1;
    if (!operation || write(operation->fd, &one, sizeof(one)) != sizeof(one))
        return -1;
    operation->pending.push_back([=](Ref ref) {
        reinterpret_cast<Reply>(ref->callback)(ref, unwrap(args)..., ref->context);
    });
    return 0;
}
}  // namespace

FAKE int DNSSD_API DNSServiceRefSockFD(Ref ref) {
    lock hold(mutex);
    return !ref || !ref->open ? -1 : ref->fd;
}
FAKE Error DNSSD_API DNSServiceProcessResult(Ref ref) {
    std::function<void(Ref)> reply;
    {
        lock hold(mutex);
        std::uint64_t count = 0;
        if (!ref || !ref->open)
            return ref ? -65541 : -65540;
        if (ref->pending.empty() || read(ref->fd, &count, sizeof(count)) != sizeof(count))
            return 0;
        reply = std::move(ref->pending.front());
        ref->pending.pop_front();
        ++delivering;
    }
    reply(ref);  // unlocked: callbacks open and close operations
    lock hold(mutex);
    --delivering;
    changed.notify_all();
    return 0;
}
FAKE void DNSSD_API DNSServiceRefDeallocate(Ref ref) {
    lock hold(mutex);
    if (ref && ref->open)
        ref->open = false, ref->pending.clear(), close(ref->fd);
    changed.notify_all();
}
FAKE Error DNSSD_API DNSServiceRegister(Ref* ref, Flags flags, u32 interface, const char* name,
                                        const char* type, const char* domain, const char* host,
                                        u16 port, u16 length, const void* txt,
                                        DNSServiceRegisterReply callback, void* context) {
    return open(ref, "DNSServiceRegister", name, callback, context, flags, interface, text(name),
                text(type), text(domain), text(host), ntohs(port), bytes(txt, length));
}
FAKE Error DNSSD_API DNSServiceBrowse(Ref* ref, Flags flags, u32 interface, const char* type,
                                      const char* domain, DNSServiceBrowseReply callback,
                                      void* context) {
    return open(ref, "DNSServiceBrowse", type, callback, context, flags, interface, text(type),
                text(domain));
}
FAKE Error DNSSD_API DNSServiceResolve(Ref* ref, Flags flags, u32 interface, const char* name,
                                       const char* type, const char* domain,
                                       DNSServiceResolveReply callback, void* context) {
    return open(ref, "DNSServiceResolve", name, callback, context, flags, interface, text(name),
                text(type), text(domain));
}
FAKE Error DNSSD_API DNSServiceQueryRecord(Ref* ref, Flags flags, u32 interface, const char* name,
                                           u16 type, u16 rrclass,
                                           DNSServiceQueryRecordReply callback, void* context) {
    return open(ref, "DNSServiceQueryRecord", name, callback, context, flags, interface, text(name),
                type, rrclass);
}
FAKE Error DNSSD_API DNSServiceReconfirmRecord(Flags flags, u32 interface, const char* name,
                                               u16 type, u16 rrclass, u16 length,
                                               const void* data) {
    return record("DNSServiceReconfirmRecord", flags, interface, text(name), type, rrclass,
                  bytes(data, length));
}
FAKE Error DNSSD_API DNSServiceGetAddrInfo(Ref* ref, Flags flags, u32 interface,
                                           DNSServiceProtocol protocol, const char* host,
                                           DNSServiceGetAddrInfoReply callback, void* context) {
    return open(ref, "DNSServiceGetAddrInfo", host, callback, context, flags, interface, protocol,
                text(host));
}

FAKE void fake_dnssd_reset() {
    lock hold(mutex);
    failures.clear(), last_calls.clear();
}
FAKE void fake_dnssd_fail(const char* function, int32_t error) {
    lock hold(mutex);
    failures[function] = error;
}
FAKE int fake_dnssd_wait_open(const char* function, const char* key, int timeout_ms) {
    lock hold(mutex);
    return changed.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                            [&] { return find_open(function, key) != nullptr; });
}
FAKE int fake_dnssd_open_count(const char* function) {
    lock hold(mutex);
    int count = 0;
    for (const auto& operation : operations)
        count += operation->open && (!function || operation->function == function);
    return count;
}
FAKE int fake_dnssd_last_call(const char* function, char* text, int size) {
    lock hold(mutex);
    return last_calls.count(function) && snprintf(text, size, "%s", last_calls[function].c_str());
}
FAKE int fake_dnssd_wait_idle(int timeout_ms) {
    lock hold(mutex);
    return changed.wait_for(hold, std::chrono::milliseconds(timeout_ms), [] {
        for (const auto& operation : operations)
            if (operation->open && !operation->pending.empty())
                return false;
        return delivering == 0;
    });
}
FAKE int fake_dnssd_browse_event(const char* key, u32 flags, u32 interface, int32_t error,
                                 const char* name, const char* type, const char* domain) {
    return answer<DNSServiceBrowseReply>("DNSServiceBrowse", key, flags, interface, error,
                                         text(name), text(type), text(domain));
}
FAKE int fake_dnssd_resolve_answer(const char* key, u32 flags, u32 interface, int32_t error,
                                   const char* fullname, const char* host, u16 port, u16 length,
                                   const unsigned char* txt) {
    return answer<DNSServiceResolveReply>("DNSServiceResolve", key, flags, interface, error,
                                          text(fullname), text(host), port, u16(txt ? length : 0),
                                          bytes(txt, length));
}
FAKE int fake_dnssd_query_answer(const char* key, u32 flags, u32 interface, int32_t error,
                                 const char* name, u16 type, u16 rrclass, u16 length,
                                 const void* data, u32 ttl) {
    return answer<DNSServiceQueryRecordReply>("DNSServiceQueryRecord", key, flags, interface, error,
                                              text(name), type, rrclass, u16(data ? length : 0),
                                              bytes(data, length), ttl);
}
FAKE int fake_dnssd_register_answer(const char* key, u32 flags, int32_t error, const char* name,
                                    const char* type, const char* domain) {
    return answer<DNSServiceRegisterReply>("DNSServiceRegister", key, flags, error, text(name),
                                           text(type), text(domain));
}
// family 2 (IPv4): 4 address bytes; 10 (IPv6): 16; 0: no address structure.
FAKE int fake_dnssd_address_answer(const char* key, u32 flags, u32 interface, int32_t error,
                                   const char* host, int family, const unsigned char* bytes) {
    address copy{{}, family != 0};
    copy.storage.sin6_family = static_cast<sa_family_t>(family);
    auto* ipv4 = reinterpret_cast<sockaddr_in*>(&copy.storage);
    if (bytes)
        std::memcpy(
            family == AF_INET ? static_cast<void*>(&ipv4->sin_addr) : &copy.storage.sin6_addr,
            bytes, family == AF_INET ? 4 : 16);
    return answer<DNSServiceGetAddrInfoReply>("DNSServiceGetAddrInfo", key, flags, interface, error,
                                              text(host), copy, u32(0));
}
