#pragma once
// The fake DNS-SD library as tests drive it (also loaded through VELMOR_DNSSD_LIBRARY). An answer
// goes to the oldest open operation of its function and key (regtype, name, full or host name),
// delivered when the poll thread calls DNSServiceProcessResult.
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
using cstr = const char*;

// Copies of the arguments that keep their null-ness (Avahi's error answers have null names).
struct text : std::optional<std::string> {
    text(cstr s) : optional(s ? optional(s) : std::nullopt) {}
    operator cstr() const { return has_value() ? value().c_str() : nullptr; }
    friend std::ostream& operator<<(std::ostream& out, const text& t) {
        return out << t.value_or("(null)");
    }
};
struct bytes : std::string {  // null when empty
    bytes(const void* data, std::size_t size)
        : basic_string(data ? (cstr)data : "", data ? size : 0) {}
    template <typename T>
    operator const T*() const {
        return empty() ? nullptr : (const T*)data();
    }
};
inline DNSServiceRef find_open(cstr function, cstr key) {
    for (const auto& operation : shared().operations)
        if (operation->open && operation->function == function && operation->key == key)
            return operation.get();
    return nullptr;
}
// Queues a call of the operation's callback with args and its context.
template <typename Reply, typename... Args>
int answer(cstr function, cstr key, Args... args) {
    lock hold(shared().mutex);
    DNSServiceRef operation = find_open(function, key);
    std::uint64_t one = 1;
    if (!operation || write(operation->fd, &one, sizeof(one)) != sizeof(one))
        return -1;
    operation->pending.push_back([=](DNSServiceRef ref) {
        reinterpret_cast<Reply>(ref->callback)(ref, args..., ref->context);
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
    void fail(cstr function, int error) const {  // later calls
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
    int browse_event(cstr regtype, u32 flags, u32 index, int error, cstr name, cstr type,
                     cstr domain) const {
        return answer<DNSServiceBrowseReply>("DNSServiceBrowse", regtype, flags, index, error,
                                             text(name), text(type), text(domain));
    }
    int resolve_answer(cstr name, u32 flags, u32 index, int error, cstr fullname, cstr host,
                       u16 port_network_order, u16 txt_length, const unsigned char* txt) const {
        return answer<DNSServiceResolveReply>("DNSServiceResolve", name, flags, index, error,
                                              text(fullname), text(host), port_network_order,
                                              u16(txt ? txt_length : 0), bytes(txt, txt_length));
    }
    int query_answer(cstr fullname, u32 flags, u32 index, int error, cstr answer_name, u16 rrtype,
                     u16 rrclass, u16 length, const void* data, u32 ttl) const {
        return answer<DNSServiceQueryRecordReply>("DNSServiceQueryRecord", fullname, flags, index,
                                                  error, text(answer_name), rrtype, rrclass,
                                                  u16(data ? length : 0), bytes(data, length), ttl);
    }
    int register_answer(cstr name, int error) const {
        return answer<DNSServiceRegisterReply>("DNSServiceRegister", name, 0u, error,
                                               text(error ? nullptr : name),
                                               text(error ? nullptr : "_t._tcp."), text("local."));
    }
    // An IPv4 or IPv6 address as text; null: no address structure.
    int address_answer(cstr key, u32 flags, int error, cstr host, cstr address_text) const {
        sockaddr_in6 a{};
        const bool v6 = address_text && std::strchr(address_text, ':');
        a.sin6_family = v6 ? AF_INET6 : AF_INET;
        if (address_text)
            inet_pton(a.sin6_family, address_text,
                      v6 ? (void*)&a.sin6_addr : &((sockaddr_in*)&a)->sin_addr);
        return answer<DNSServiceGetAddrInfoReply>(
            "DNSServiceGetAddrInfo", key, flags, 5u, error, text(host),
            bytes(address_text ? &a : nullptr, sizeof(a)), u32(0));
    }
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
