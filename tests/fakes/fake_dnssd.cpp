// A DNS-SD library for unit tests: the nine functions of the zeroconf table, answering what the
// test injects through the fake_dnssd_* control functions. Every operation has a real file
// descriptor (an eventfd counting its queued answers), so select() on it behaves as on a daemon
// socket.

#include <arpa/inet.h>
#include "velmor_dnssd.h"
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#define FAKE_EXPORT extern "C" __attribute__((visibility("default")))


namespace {

constexpr DNSServiceErrorType bad_param = -65540;
constexpr DNSServiceErrorType bad_reference = -65541;

struct answer {
    DNSServiceFlags flags = 0;
    std::uint32_t interface_index = 0;
    DNSServiceErrorType error = 0;
    std::string text[3];
    bool has_text[3] = {};
    std::uint16_t number[3] = {};
    std::vector<unsigned char> data;
    std::uint32_t ttl = 0;
    int family = 0;
};

}  // namespace

struct _DNSServiceRef_t {
    std::string function;
    std::string key;
    int fd = -1;
    bool open = true;
    void* callback = nullptr;
    void* context = nullptr;
    std::deque<answer> pending;
};

namespace {

std::mutex mutex;
std::condition_variable changed;
// Every operation ever made stays here (closed ones too), so a late call on a closed
// operation finds memory it may read.
std::vector<std::unique_ptr<_DNSServiceRef_t>> operations;
std::map<std::string, int> call_counts;
std::map<std::string, DNSServiceErrorType> failures;
std::map<std::string, std::string> last_calls;
bool invalid_sockets = false;
int delivering = 0;

using lock = std::unique_lock<std::mutex>;

const char* text_or_null(const char* text) {
    return text ? text : "(null)";
}

std::string hex(const void* data, std::size_t length) {
    std::string text;
    char byte[3];
    for (std::size_t i = 0; i < length; ++i) {
        std::snprintf(byte, sizeof(byte), "%02x", static_cast<const unsigned char*>(data)[i]);
        text += byte;
    }
    return text;
}

template <typename... Args>
std::string format(const char* pattern, Args... args) {
    char text[2048];
    std::snprintf(text, sizeof(text), pattern, args...);
    return text;
}

// Records a call; the failure the test set for it, else 0.
DNSServiceErrorType record(const char* function, std::string arguments) {
    lock hold(mutex);
    ++call_counts[function];
    last_calls[function] = std::move(arguments);
    auto failure = failures.find(function);
    return failure == failures.end() ? 0 : failure->second;
}

DNSServiceErrorType open_operation(DNSServiceRef* sd_ref, const char* function, const char* key,
                                   void* callback, void* context, std::string arguments) {
    DNSServiceErrorType error = record(function, std::move(arguments));
    if (error != 0)
        return error;
    if (!sd_ref)
        return bad_param;
    auto operation = std::make_unique<_DNSServiceRef_t>();
    operation->function = function;
    operation->key = text_or_null(key);
    operation->fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
    operation->callback = callback;
    operation->context = context;
    lock hold(mutex);
    *sd_ref = operation.get();
    operations.push_back(std::move(operation));
    changed.notify_all();
    return 0;
}

DNSServiceRef find_open(const char* function, const char* key) {
    for (const auto& operation : operations)
        if (operation->open && operation->function == function && (!key || operation->key == key))
            return operation.get();
    return nullptr;
}

int queue(const char* function, const char* key, answer reply) {
    lock hold(mutex);
    DNSServiceRef operation = find_open(function, key);
    if (!operation)
        return -1;
    operation->pending.push_back(std::move(reply));
    std::uint64_t one = 1;
    if (write(operation->fd, &one, sizeof(one)) != sizeof(one))
        return -1;
    return 0;
}

void set_text(answer& reply, int index, const char* text) {
    reply.has_text[index] = text != nullptr;
    if (text)
        reply.text[index] = text;
}

const char* text_of(const answer& reply, int index) {
    return reply.has_text[index] ? reply.text[index].c_str() : nullptr;
}

void deliver(DNSServiceRef sd_ref, const answer& reply) {
    const std::string& function = sd_ref->function;
    void* context = sd_ref->context;
    if (function == "DNSServiceBrowse") {
        reinterpret_cast<DNSServiceBrowseReply>(sd_ref->callback)(
            sd_ref, reply.flags, reply.interface_index, reply.error, text_of(reply, 0),
            text_of(reply, 1), text_of(reply, 2), context);
    } else if (function == "DNSServiceResolve") {
        reinterpret_cast<DNSServiceResolveReply>(sd_ref->callback)(
            sd_ref, reply.flags, reply.interface_index, reply.error, text_of(reply, 0),
            text_of(reply, 1), reply.number[0], static_cast<std::uint16_t>(reply.data.size()),
            reply.data.empty() ? nullptr : reply.data.data(), context);
    } else if (function == "DNSServiceQueryRecord") {
        reinterpret_cast<DNSServiceQueryRecordReply>(sd_ref->callback)(
            sd_ref, reply.flags, reply.interface_index, reply.error, text_of(reply, 0),
            reply.number[0], reply.number[1], static_cast<std::uint16_t>(reply.data.size()),
            reply.data.empty() ? nullptr : reply.data.data(), reply.ttl, context);
    } else if (function == "DNSServiceRegister") {
        reinterpret_cast<DNSServiceRegisterReply>(sd_ref->callback)(
            sd_ref, reply.flags, reply.error, text_of(reply, 0), text_of(reply, 1),
            text_of(reply, 2), context);
    } else if (function == "DNSServiceGetAddrInfo") {
        sockaddr_in ipv4{};
        sockaddr_in6 ipv6{};
        const sockaddr* address = nullptr;
        if (reply.family == AF_INET) {
            ipv4.sin_family = AF_INET;
            std::memcpy(&ipv4.sin_addr, reply.data.data(), 4);
            address = reinterpret_cast<const sockaddr*>(&ipv4);
        } else if (reply.family == AF_INET6) {
            ipv6.sin6_family = AF_INET6;
            std::memcpy(&ipv6.sin6_addr, reply.data.data(), 16);
            address = reinterpret_cast<const sockaddr*>(&ipv6);
        }
        reinterpret_cast<DNSServiceGetAddrInfoReply>(sd_ref->callback)(
            sd_ref, reply.flags, reply.interface_index, reply.error, text_of(reply, 0), address,
            reply.ttl, context);
    }
}

bool idle() {
    if (delivering > 0)
        return false;
    for (const auto& operation : operations)
        if (operation->open && !operation->pending.empty())
            return false;
    return true;
}

}  // namespace

FAKE_EXPORT int DNSSD_API DNSServiceRefSockFD(DNSServiceRef sdRef) {
    lock hold(mutex);
    ++call_counts["DNSServiceRefSockFD"];
    if (invalid_sockets || !sdRef || !sdRef->open)
        return -1;
    return sdRef->fd;
}

FAKE_EXPORT DNSServiceErrorType DNSSD_API DNSServiceProcessResult(DNSServiceRef sdRef) {
    answer reply;
    {
        lock hold(mutex);
        ++call_counts["DNSServiceProcessResult"];
        if (!sdRef)
            return bad_param;
        if (!sdRef->open)
            return bad_reference;
        std::uint64_t count = 0;
        if (sdRef->pending.empty() || read(sdRef->fd, &count, sizeof(count)) != sizeof(count))
            return 0;
        reply = std::move(sdRef->pending.front());
        sdRef->pending.pop_front();
        ++delivering;
    }
    // Unlocked: the callback may open and close operations, this one included.
    deliver(sdRef, reply);
    lock hold(mutex);
    --delivering;
    changed.notify_all();
    return 0;
}

FAKE_EXPORT void DNSSD_API DNSServiceRefDeallocate(DNSServiceRef sdRef) {
    lock hold(mutex);
    ++call_counts["DNSServiceRefDeallocate"];
    if (!sdRef || !sdRef->open)
        return;
    sdRef->open = false;
    sdRef->pending.clear();
    close(sdRef->fd);
    sdRef->fd = -1;
    changed.notify_all();
}

FAKE_EXPORT DNSServiceErrorType DNSSD_API DNSServiceRegister(
    DNSServiceRef* sdRef, DNSServiceFlags flags, uint32_t interfaceIndex, const char* name,
    const char* regtype, const char* domain, const char* host, uint16_t port, uint16_t txtLen,
    const void* txtRecord, DNSServiceRegisterReply callBack, void* context) {
    std::string arguments =
        format("flags=%u interface=%u name=%s regtype=%s domain=%s host=%s port=%u txt=%s", flags,
               interfaceIndex, text_or_null(name), text_or_null(regtype), text_or_null(domain),
               text_or_null(host), ntohs(port), hex(txtRecord, txtRecord ? txtLen : 0).c_str());
    return open_operation(sdRef, "DNSServiceRegister", name, reinterpret_cast<void*>(callBack),
                          context, std::move(arguments));
}

FAKE_EXPORT DNSServiceErrorType DNSSD_API DNSServiceBrowse(
    DNSServiceRef* sdRef, DNSServiceFlags flags, uint32_t interfaceIndex, const char* regtype,
    const char* domain, DNSServiceBrowseReply callBack, void* context) {
    std::string arguments = format("flags=%u interface=%u regtype=%s domain=%s", flags,
                                   interfaceIndex, text_or_null(regtype), text_or_null(domain));
    return open_operation(sdRef, "DNSServiceBrowse", regtype, reinterpret_cast<void*>(callBack),
                          context, std::move(arguments));
}

FAKE_EXPORT DNSServiceErrorType DNSSD_API DNSServiceResolve(
    DNSServiceRef* sdRef, DNSServiceFlags flags, uint32_t interfaceIndex, const char* name,
    const char* regtype, const char* domain, DNSServiceResolveReply callBack, void* context) {
    std::string arguments =
        format("flags=%u interface=%u name=%s regtype=%s domain=%s", flags, interfaceIndex,
               text_or_null(name), text_or_null(regtype), text_or_null(domain));
    return open_operation(sdRef, "DNSServiceResolve", name, reinterpret_cast<void*>(callBack),
                          context, std::move(arguments));
}

FAKE_EXPORT DNSServiceErrorType DNSSD_API DNSServiceQueryRecord(
    DNSServiceRef* sdRef, DNSServiceFlags flags, uint32_t interfaceIndex, const char* fullname,
    uint16_t rrtype, uint16_t rrclass, DNSServiceQueryRecordReply callBack, void* context) {
    std::string arguments = format("flags=%u interface=%u fullname=%s rrtype=%u rrclass=%u", flags,
                                   interfaceIndex, text_or_null(fullname), rrtype, rrclass);
    return open_operation(sdRef, "DNSServiceQueryRecord", fullname,
                          reinterpret_cast<void*>(callBack), context, std::move(arguments));
}

FAKE_EXPORT DNSServiceErrorType DNSSD_API
DNSServiceReconfirmRecord(DNSServiceFlags flags, uint32_t interfaceIndex, const char* fullname,
                          uint16_t rrtype, uint16_t rrclass, uint16_t rdlen, const void* rdata) {
    return record("DNSServiceReconfirmRecord",
                  format("flags=%u interface=%u fullname=%s rrtype=%u rrclass=%u rdata=%s", flags,
                         interfaceIndex, text_or_null(fullname), rrtype, rrclass,
                         hex(rdata, rdata ? rdlen : 0).c_str()));
}

#ifndef FAKE_DNSSD_WITHOUT_GETADDRINFO
FAKE_EXPORT DNSServiceErrorType DNSSD_API
DNSServiceGetAddrInfo(DNSServiceRef* sdRef, DNSServiceFlags flags, uint32_t interfaceIndex,
                      DNSServiceProtocol protocol, const char* hostname,
                      DNSServiceGetAddrInfoReply callBack, void* context) {
    std::string arguments = format("flags=%u interface=%u protocol=%u hostname=%s", flags,
                                   interfaceIndex, protocol, text_or_null(hostname));
    return open_operation(sdRef, "DNSServiceGetAddrInfo", hostname,
                          reinterpret_cast<void*>(callBack), context, std::move(arguments));
}
#endif

FAKE_EXPORT void fake_dnssd_reset() {
    lock hold(mutex);
    call_counts.clear();
    failures.clear();
    last_calls.clear();
    invalid_sockets = false;
}

FAKE_EXPORT int fake_dnssd_calls(const char* function) {
    lock hold(mutex);
    auto count = call_counts.find(function);
    return count == call_counts.end() ? 0 : count->second;
}

FAKE_EXPORT void fake_dnssd_fail(const char* function, int32_t error) {
    lock hold(mutex);
    if (error == 0)
        failures.erase(function);
    else
        failures[function] = error;
}

FAKE_EXPORT void fake_dnssd_invalid_sockets(int on) {
    lock hold(mutex);
    invalid_sockets = on != 0;
}

FAKE_EXPORT int fake_dnssd_wait_open(const char* function, const char* key, int timeout_ms) {
    lock hold(mutex);
    return changed.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                            [&] { return find_open(function, key) != nullptr; })
               ? 1
               : 0;
}

FAKE_EXPORT int fake_dnssd_open_count(const char* function) {
    lock hold(mutex);
    int count = 0;
    for (const auto& operation : operations)
        if (operation->open && (!function || operation->function == function))
            ++count;
    return count;
}

FAKE_EXPORT int fake_dnssd_socket(const char* function, const char* key) {
    lock hold(mutex);
    DNSServiceRef operation = find_open(function, key);
    return operation ? operation->fd : -1;
}

FAKE_EXPORT int fake_dnssd_last_call(const char* function, char* text, int size) {
    lock hold(mutex);
    auto call = last_calls.find(function);
    if (call == last_calls.end() || size <= 0)
        return 0;
    std::snprintf(text, static_cast<std::size_t>(size), "%s", call->second.c_str());
    return 1;
}

FAKE_EXPORT int fake_dnssd_wait_idle(int timeout_ms) {
    lock hold(mutex);
    return changed.wait_for(hold, std::chrono::milliseconds(timeout_ms), idle) ? 1 : 0;
}

FAKE_EXPORT int fake_dnssd_browse_event(const char* regtype, uint32_t flags,
                                        uint32_t interface_index, int32_t error, const char* name,
                                        const char* type, const char* domain) {
    answer reply;
    reply.flags = flags;
    reply.interface_index = interface_index;
    reply.error = error;
    set_text(reply, 0, name);
    set_text(reply, 1, type);
    set_text(reply, 2, domain);
    return queue("DNSServiceBrowse", regtype, std::move(reply));
}

FAKE_EXPORT int fake_dnssd_resolve_answer(const char* name, uint32_t flags,
                                          uint32_t interface_index, int32_t error,
                                          const char* fullname, const char* host,
                                          uint16_t port_network_order, uint16_t txt_length,
                                          const unsigned char* txt) {
    answer reply;
    reply.flags = flags;
    reply.interface_index = interface_index;
    reply.error = error;
    set_text(reply, 0, fullname);
    set_text(reply, 1, host);
    reply.number[0] = port_network_order;
    if (txt)
        reply.data.assign(txt, txt + txt_length);
    return queue("DNSServiceResolve", name, std::move(reply));
}

FAKE_EXPORT int fake_dnssd_query_answer(const char* fullname, uint32_t flags,
                                        uint32_t interface_index, int32_t error,
                                        const char* answer_name, uint16_t rrtype, uint16_t rrclass,
                                        uint16_t length, const void* data, uint32_t ttl) {
    answer reply;
    reply.flags = flags;
    reply.interface_index = interface_index;
    reply.error = error;
    set_text(reply, 0, answer_name);
    reply.number[0] = rrtype;
    reply.number[1] = rrclass;
    if (data)
        reply.data.assign(static_cast<const unsigned char*>(data),
                          static_cast<const unsigned char*>(data) + length);
    reply.ttl = ttl;
    return queue("DNSServiceQueryRecord", fullname, std::move(reply));
}

FAKE_EXPORT int fake_dnssd_register_answer(const char* name, uint32_t flags, int32_t error,
                                           const char* answer_name, const char* type,
                                           const char* domain) {
    answer reply;
    reply.flags = flags;
    reply.error = error;
    set_text(reply, 0, answer_name);
    set_text(reply, 1, type);
    set_text(reply, 2, domain);
    return queue("DNSServiceRegister", name, std::move(reply));
}

FAKE_EXPORT int fake_dnssd_address_answer(const char* hostname, uint32_t flags,
                                          uint32_t interface_index, int32_t error,
                                          const char* answer_host, int family,
                                          const unsigned char* address) {
    answer reply;
    reply.flags = flags;
    reply.interface_index = interface_index;
    reply.error = error;
    set_text(reply, 0, answer_host);
    reply.family = family;
    if (family == AF_INET)
        reply.data.assign(address, address + 4);
    else if (family == AF_INET6)
        reply.data.assign(address, address + 16);
    return queue("DNSServiceGetAddrInfo", hostname, std::move(reply));
}
