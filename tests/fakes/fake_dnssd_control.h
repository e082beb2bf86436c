#pragma once
// The fake DNS-SD library as tests drive it (they link it; the zeroconf table loads it through
// VELMOR_DNSSD_LIBRARY). An answer goes to the oldest open operation of that function with that
// key (a browse's regtype, a resolve's or registration's name, a query's full name, an address
// query's host name), delivered when the poll thread calls DNSServiceProcessResult.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "velmor_dnssd.h"

struct _DNSServiceRef_t {
    std::string function, key;
    int fd;  // an eventfd counting the queued answers
    void *callback, *context;
    bool open = true;
    std::deque<std::function<void(DNSServiceRef)>> pending = {};
};

namespace fake_dnssd {

struct state {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::unique_ptr<_DNSServiceRef_t>> operations;  // closed ones too: late calls
    std::map<std::string, DNSServiceErrorType> failures;
    std::map<std::string, std::string> calls;
    int delivering = 0;
    DNSServiceRef dispatching = nullptr;  // a real library frees it under its caller
    std::thread::id dispatcher;
};
state& shared();  // the fake library's own
using lock = std::unique_lock<std::mutex>;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using i32 = std::int32_t;
using cstr = const char*;

// Copies of the arguments: text keeps its null-ness (Avahi's error answers have null names).
using text = std::optional<std::string>;
using bytes = std::vector<unsigned char>;
inline text copy(cstr s) {
    return s ? text(s) : std::nullopt;
}
inline bytes copy(const void* data, std::size_t size) {
    return data ? bytes((const unsigned char*)data, (const unsigned char*)data + size) : bytes();
}
template <typename T>
const T& unwrap(const T& value) {
    return value;
}
inline cstr unwrap(const text& t) {
    return t ? t->c_str() : nullptr;
}
inline const unsigned char* unwrap(const bytes& b) {
    return b.empty() ? nullptr : b.data();
}
inline const sockaddr* unwrap(const std::optional<sockaddr_in6>& a) {
    return a ? (const sockaddr*)&*a : nullptr;
}

inline DNSServiceRef find_open(cstr function, cstr key) {
    for (const auto& operation : shared().operations)
        if (operation->open && operation->function == function && operation->key == key)
            return operation.get();
    return nullptr;
}
// Queues a call of the operation's callback with args (unwrapped) and its context.
template <typename Reply, typename... Args>
int answer(cstr function, cstr key, Args... args) {
    lock hold(shared().mutex);
    DNSServiceRef operation = find_open(function, key);
    std::uint64_t one = 1;
    if (!operation || write(operation->fd, &one, sizeof(one)) != sizeof(one))
        return -1;
    operation->pending.push_back([=](DNSServiceRef ref) {
        reinterpret_cast<Reply>(ref->callback)(ref, unwrap(args)..., ref->context);
    });
    return 0;
}
template <typename Ready>
bool wait_for(int timeout_ms, Ready ready) {
    lock hold(shared().mutex);
    return shared().changed.wait_for(hold, std::chrono::milliseconds(timeout_ms), ready);
}

struct control {
    void reset() const {
        lock hold(shared().mutex);
        shared().failures.clear(), shared().calls.clear();
    }
    // Later calls of function fail with error.
    void fail(cstr function, i32 error) const {
        lock hold(shared().mutex);
        shared().failures[function] = error;
    }
    bool wait_open(cstr function, cstr key, int timeout_ms) const {
        return wait_for(timeout_ms, [&] { return find_open(function, key); });
    }
    bool wait_closed(int timeout_ms) const {
        return wait_for(timeout_ms, [] {
            return std::none_of(shared().operations.begin(), shared().operations.end(),
                                [](const auto& operation) { return operation->open; });
        });
    }
    // Every queued answer delivered, its callback returned.
    bool wait_idle(int timeout_ms) const {
        return wait_for(timeout_ms, [] {
            return shared().delivering == 0 &&
                   std::none_of(shared().operations.begin(), shared().operations.end(),
                                [](const auto& operation) { return !operation->pending.empty(); });
        });
    }
    int browse_event(cstr regtype, u32 flags, u32 index, i32 error, cstr name, cstr type,
                     cstr domain) const {
        return answer<DNSServiceBrowseReply>("DNSServiceBrowse", regtype, flags, index, error,
                                             copy(name), copy(type), copy(domain));
    }
    int resolve_answer(cstr name, u32 flags, u32 index, i32 error, cstr fullname, cstr host,
                       u16 port_network_order, u16 txt_length, const unsigned char* txt) const {
        return answer<DNSServiceResolveReply>("DNSServiceResolve", name, flags, index, error,
                                              copy(fullname), copy(host), port_network_order,
                                              u16(txt ? txt_length : 0), copy(txt, txt_length));
    }
    int query_answer(cstr fullname, u32 flags, u32 index, i32 error, cstr answer_name, u16 rrtype,
                     u16 rrclass, u16 length, const void* data, u32 ttl) const {
        return answer<DNSServiceQueryRecordReply>("DNSServiceQueryRecord", fullname, flags, index,
                                                  error, copy(answer_name), rrtype, rrclass,
                                                  u16(data ? length : 0), copy(data, length), ttl);
    }
    int register_answer(cstr name, i32 error) const {
        return answer<DNSServiceRegisterReply>("DNSServiceRegister", name, 0u, error,
                                               copy(error ? nullptr : name),
                                               copy(error ? nullptr : "_t._tcp."), text("local."));
    }
    // An IPv4 or IPv6 address as text; null: no address structure.
    int address_answer(cstr key, u32 flags, i32 error, cstr host, cstr address_text) const {
        std::optional<sockaddr_in6> a;
        if (address_text) {
            const bool v6 = std::strchr(address_text, ':');
            a = sockaddr_in6{};
            a->sin6_family = v6 ? AF_INET6 : AF_INET;
            inet_pton(a->sin6_family, address_text,
                      v6 ? (void*)&a->sin6_addr : &((sockaddr_in*)&*a)->sin_addr);
        }
        return answer<DNSServiceGetAddrInfoReply>("DNSServiceGetAddrInfo", key, flags, 5u, error,
                                                  copy(host), a, u32(0));
    }
    // The arguments of the last call of function; empty when there was none.
    std::string last(cstr function) const {
        lock hold(shared().mutex);
        return shared().calls[function];
    }
    static const control& get() {
        static const control instance;
        return instance;
    }
};

}  // namespace fake_dnssd
