#pragma once
// The fake DNS-SD library (tests/fakes) as its tests drive it: they link it, and the zeroconf
// table loads the same file through VELMOR_DNSSD_LIBRARY. Operations are named by the function
// that opens them and matched on one argument, their key: a browse's regtype, a resolve's or
// registration's name, a query's full name, an address query's host name. An answer goes to the
// oldest open operation with that key and is delivered when the poll thread calls
// DNSServiceProcessResult; a call is recorded as its arguments, space-separated.
#include <arpa/inet.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "velmor_dnssd.h"

struct _DNSServiceRef_t {
    _DNSServiceRef_t(const char* function, const char* key) : function(function), key(key) {}
    std::string function, key;
    int fd = -1;  // an eventfd counting the queued answers
    bool open = true;
    void *callback = nullptr, *context = nullptr;
    std::deque<std::function<void(DNSServiceRef)>> pending;
};

namespace fake_dnssd {

using ms = std::chrono::milliseconds;
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

// Text that keeps its null-ness (Avahi's error answers have null names); bytes; an address.
struct text {
    explicit text(const char* s) : null(!s), value(s ? s : "") {}
    bool null;
    std::string value;
};
struct bytes {
    bytes(const void* data, std::size_t size)
        : value((const unsigned char*)data, (const unsigned char*)data + (data ? size : 0)) {}
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
inline const char* unwrap(const text& t) {
    return t.null ? nullptr : t.value.c_str();
}
inline const unsigned char* unwrap(const bytes& b) {
    return b.value.empty() ? nullptr : b.value.data();
}
inline const sockaddr* unwrap(const address& a) {
    return a.present ? (const sockaddr*)&a.storage : nullptr;
}

inline DNSServiceRef find_open(const char* function, const char* key) {
    for (const auto& operation : shared().operations)
        if (operation->open && operation->function == function && (!key || operation->key == key))
            return operation.get();
    return nullptr;
}
// Queues a call of the operation's callback with args (unwrapped) and its context.
template <typename Reply, typename... Args>
int answer(const char* function, const char* key, Args... args) {
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

using u16 = std::uint16_t;
using u32 = std::uint32_t;
using i32 = std::int32_t;
using cstr = const char*;

struct control {
    void (*reset)() = [] {
        lock hold(shared().mutex);
        shared().failures.clear(), shared().calls.clear();
    };
    // Later calls of function fail with error (0: succeed again).
    void (*fail)(cstr function, i32 error) = [](cstr function, i32 error) {
        lock hold(shared().mutex);
        shared().failures[function] = error;
    };
    int (*wait_open)(cstr function, cstr key, int timeout_ms) = [](cstr f, cstr key, int timeout) {
        lock hold(shared().mutex);
        return (int)shared().changed.wait_for(hold, ms(timeout), [&] { return find_open(f, key); });
    };
    int (*open_count)(cstr function) = [](cstr function) {
        lock hold(shared().mutex);
        int count = 0;
        for (const auto& operation : shared().operations)
            count += operation->open && (!function || operation->function == function);
        return count;
    };
    // Every queued answer delivered, its callback returned.
    int (*wait_idle)(int timeout_ms) = [](int timeout) {
        lock hold(shared().mutex);
        return (int)shared().changed.wait_for(hold, ms(timeout), [] {
            for (const auto& operation : shared().operations)
                if (operation->open && !operation->pending.empty())
                    return false;
            return shared().delivering == 0;
        });
    };
    int (*browse_event)(cstr regtype, u32 flags, u32 index, i32 error, cstr name, cstr type,
                        cstr domain) = [](cstr key, u32 flags, u32 index, i32 error, cstr name,
                                          cstr type, cstr domain) {
        return answer<DNSServiceBrowseReply>("DNSServiceBrowse", key, flags, index, error,
                                             text(name), text(type), text(domain));
    };
    int (*resolve_answer)(cstr name, u32 flags, u32 index, i32 error, cstr fullname, cstr host,
                          u16 port_network_order, u16 txt_length, const unsigned char* txt) =
        [](cstr key, u32 flags, u32 index, i32 error, cstr fullname, cstr host, u16 port,
           u16 length, const unsigned char* txt) {
            return answer<DNSServiceResolveReply>("DNSServiceResolve", key, flags, index, error,
                                                  text(fullname), text(host), port,
                                                  u16(txt ? length : 0), bytes(txt, length));
        };
    int (*query_answer)(cstr fullname, u32 flags, u32 index, i32 error, cstr answer_name,
                        u16 rrtype, u16 rrclass, u16 length, const void* data,
                        u32 ttl) = [](cstr key, u32 flags, u32 index, i32 error, cstr name,
                                      u16 type, u16 rrclass, u16 length, const void* data,
                                      u32 ttl) {
        return answer<DNSServiceQueryRecordReply>("DNSServiceQueryRecord", key, flags, index, error,
                                                  text(name), type, rrclass, u16(data ? length : 0),
                                                  bytes(data, length), ttl);
    };
    int (*register_answer)(cstr name, u32 flags, i32 error, cstr answer_name, cstr type,
                           cstr domain) = [](cstr key, u32 flags, i32 error, cstr name, cstr type,
                                             cstr domain) {
        return answer<DNSServiceRegisterReply>("DNSServiceRegister", key, flags, error, text(name),
                                               text(type), text(domain));
    };
    // family 2: address holds 4 bytes; 10: 16 bytes; 0: no address structure.
    int (*address_answer)(cstr hostname, u32 flags, u32 index, i32 error, cstr answer_host,
                          int family, const unsigned char* address_bytes) =
        [](cstr key, u32 flags, u32 index, i32 error, cstr host, int family,
           const unsigned char* bytes) {
            address copy{{}, family != 0};
            copy.storage.sin6_family = static_cast<sa_family_t>(family);
            if (bytes)
                std::memcpy(family == AF_INET ? (void*)&((sockaddr_in*)&copy.storage)->sin_addr
                                              : &copy.storage.sin6_addr,
                            bytes, family == AF_INET ? 4 : 16);
            return answer<DNSServiceGetAddrInfoReply>("DNSServiceGetAddrInfo", key, flags, index,
                                                      error, text(host), copy, u32(0));
        };

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
