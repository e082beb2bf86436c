// A DNS-SD library for unit tests, answering what the test queues (fake_dnssd_control.h). Every
// operation has a real descriptor, so the poll thread waits on it as on a daemon's socket.
#include <sys/eventfd.h>

#include <sstream>

#include "fake_dnssd_control.h"

#define FAKE extern "C" __attribute__((visibility("default")))
using namespace fake_dnssd;
using Ref = DNSServiceRef;
using Error = DNSServiceErrorType;
using Flags = DNSServiceFlags;
__attribute__((visibility("default"))) state& fake_dnssd::shared() {
    static auto* instance = new state;  // never destroyed: poll threads may outlive main
    return *instance;
}
static std::ostream& operator<<(std::ostream& out, const bytes& b) {
    for (unsigned char byte : b)
        out << std::hex << (byte >> 4) << (byte & 15) << std::dec;
    return out;
}
template <typename... Args>
static Error record(const char* function, const Args&... args) {
    std::ostringstream line;
    ((line << args << ' '), ...);
    lock hold(shared().mutex);
    shared().calls[function] = line.str().substr(0, line.str().size() - 1);
    return shared().failures.count(function) ? shared().failures[function] : 0;
}
template <typename Callback, typename... Args>
static Error open(Ref* ref, const char* function, const char* key, Callback callback, void* context,
                  const Args&... args) {
    if (Error error = record(function, args...))
        return error;
    lock hold(shared().mutex);
    *ref = new _DNSServiceRef_t{function, key ? key : "(null)",
                                eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK),
                                reinterpret_cast<void*>(callback), context};
    shared().operations.emplace_back(*ref);
    shared().changed.notify_all();
    return 0;
}
FAKE int DNSSD_API DNSServiceRefSockFD(Ref ref) {
    lock hold(shared().mutex);
    return !ref || !ref->open ? -1 : ref->fd;
}
FAKE Error DNSSD_API DNSServiceProcessResult(Ref ref) {
    lock hold(shared().mutex);
    std::uint64_t count = 0;
    if (!ref || !ref->open)
        return ref ? -65541 : -65540;
    if (ref->pending.empty() || read(ref->fd, &count, sizeof(count)) != sizeof(count))
        return 0;
    auto reply = std::move(ref->pending.front());
    ref->pending.pop_front();
    ++shared().delivering, shared().dispatching = ref;
    shared().dispatcher = std::this_thread::get_id();
    hold.unlock();
    reply(ref);  // unlocked: callbacks open and close operations
    hold.lock();
    --shared().delivering, shared().dispatching = nullptr;
    shared().changed.notify_all();
    return 0;
}
FAKE void DNSSD_API DNSServiceRefDeallocate(Ref ref) {
    lock hold(shared().mutex);
    // Freed on another thread while dispatched: a use after free with a real library.
    if (ref && ref == shared().dispatching && std::this_thread::get_id() != shared().dispatcher)
        std::abort();
    if (ref && ref->open)
        ref->open = false, ref->pending.clear(), close(ref->fd);
    shared().changed.notify_all();
}
FAKE Error DNSSD_API DNSServiceRegister(Ref* ref, Flags flags, u32 interface, cstr name, cstr type,
                                        cstr domain, cstr host, u16 port, u16 length,
                                        const void* txt, DNSServiceRegisterReply callback,
                                        void* context) {
    return open(ref, __func__, name, callback, context, flags, interface, text(name), text(type),
                text(domain), text(host), ntohs(port), bytes(txt, length));
}
FAKE Error DNSSD_API DNSServiceBrowse(Ref* ref, Flags flags, u32 interface, cstr type, cstr domain,
                                      DNSServiceBrowseReply callback, void* context) {
    return open(ref, __func__, type, callback, context, flags, interface, text(type), text(domain));
}
FAKE Error DNSSD_API DNSServiceResolve(Ref* ref, Flags flags, u32 interface, cstr name, cstr type,
                                       cstr domain, DNSServiceResolveReply callback,
                                       void* context) {
    return open(ref, __func__, name, callback, context, flags, interface, text(name), text(type),
                text(domain));
}
FAKE Error DNSSD_API DNSServiceQueryRecord(Ref* ref, Flags flags, u32 interface, cstr name,
                                           u16 type, u16 rrclass,
                                           DNSServiceQueryRecordReply callback, void* context) {
    return open(ref, __func__, name, callback, context, flags, interface, text(name), type,
                rrclass);
}
FAKE Error DNSSD_API DNSServiceReconfirmRecord(Flags flags, u32 interface, cstr name, u16 type,
                                               u16 rrclass, u16 length, const void* data) {
    return record(__func__, flags, interface, text(name), type, rrclass, bytes(data, length));
}
FAKE Error DNSSD_API DNSServiceGetAddrInfo(Ref* ref, Flags flags, u32 interface,
                                           DNSServiceProtocol protocol, cstr host,
                                           DNSServiceGetAddrInfoReply callback, void* context) {
    return open(ref, __func__, host, callback, context, flags, interface, protocol, text(host));
}
