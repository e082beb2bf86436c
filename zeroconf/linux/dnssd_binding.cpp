// The DNS-SD entry points over Avahi's Bonjour compatibility library (libdns_sd.so.1).
// Every DNSServiceRef handed out here is our own Handle, which owns the library's reference;
// that lets us drop the flags Avahi refuses, turn its renaming into a name conflict, serve
// DNSServiceGetAddrInfo from an A-record query, fold Avahi's per-transport duplicates and finish
// from the instance's records a resolve that Avahi gave up.

#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <avahi-common/malloc.h>

#include "dnssd_handle.h"

#define VELMOR_EXPORT extern "C" __attribute__((visibility("default")))

namespace velmor_dnssd {

const Avahi& avahi() {
    static Avahi table;
    static std::once_flag once;
    std::call_once(once, [] {
        // Its "uses the Apple Bonjour compatibility layer" warning must never reach the console.
        setenv("AVAHI_COMPAT_NOWARN", "1", 1);
        // Never closed: callers may hold references until the process ends.
        void* library = dlopen("libdns_sd.so.1", RTLD_NOW | RTLD_LOCAL);
        if (!library)
            return;
        auto bind = [library](auto& slot, const char* name) {
            slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(dlsym(library, name));
            return slot != nullptr;
        };
        // The library leaves the callbacks of a new reference uninitialised and, when the
        // daemon goes away, calls the browse callback of any reference that has a non-null
        // one: a resolve or a query open at that moment jumps to garbage. Zeroed memory makes
        // it fall through to the callback the reference really has.
        static const AvahiAllocator zeroed{[](size_t size) { return std::calloc(1, size); },
                                           std::free, std::realloc, std::calloc};
        decltype(&::avahi_set_allocator) setAllocator = nullptr;
        if (bind(setAllocator, "avahi_set_allocator"))
            setAllocator(&zeroed);
        table.loaded = bind(table.refSockFD, "DNSServiceRefSockFD") &&
                       bind(table.processResult, "DNSServiceProcessResult") &&
                       bind(table.refDeallocate, "DNSServiceRefDeallocate") &&
                       bind(table.registerService, "DNSServiceRegister") &&
                       bind(table.browse, "DNSServiceBrowse") &&
                       bind(table.resolve, "DNSServiceResolve") &&
                       bind(table.queryRecord, "DNSServiceQueryRecord");
        // Only a resolve that Avahi gave up needs it.
        bind(table.constructFullName, "DNSServiceConstructFullName");
    });
    return table;
}

Registry& registry() {
    static auto* instance = new Registry;
    return *instance;
}

}  // namespace velmor_dnssd

using namespace velmor_dnssd;

namespace {

// The handle behind ref, marked busy so that it outlives the call; null when not ours.
Handle* enter(DNSServiceRef ref) {
    std::lock_guard<std::mutex> lock(registry().mutex);
    auto* handle = reinterpret_cast<Handle*>(ref);
    if (!registry().handles.count(handle))
        return nullptr;
    ++handle->dispatching;
    return handle;
}

void leave(Handle* handle) {
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        if (--handle->dispatching > 0 || !handle->released)
            return;
    }
    delete handle;
}

DNSServiceErrorType adopt(Handle* handle, DNSServiceErrorType error, DNSServiceRef* sdRef) {
    if (error != kDNSServiceErr_NoError) {
        handle->inner = nullptr;
        delete handle;
        // Avahi's library says "unknown" when it finds no system bus and "unsupported" when the
        // bus has no daemon (we pass no flags it could refuse): both mean no daemon to talk to.
        bool noDaemon = error == kDNSServiceErr_Unknown || error == kDNSServiceErr_Unsupported;
        return noDaemon ? kDNSServiceErr_ServiceNotRunning : error;
    }
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        registry().handles.insert(handle);
    }
    *sdRef = handle->ref();
    return kDNSServiceErr_NoError;
}

std::string joinKey(uint32_t interfaceIndex, std::initializer_list<std::string_view> parts) {
    std::string key = std::to_string(interfaceIndex);
    for (std::string_view part : parts) {
        key += '\0';
        key += part;
    }
    return key;
}

const char* text(const char* s) {
    return s ? s : "";
}

void DNSSD_API onRegister(DNSServiceRef, DNSServiceFlags flags, DNSServiceErrorType error,
                          const char* name, const char* type, const char* domain, void* context) {
    auto* handle = static_cast<Handle*>(context);
    if (handle->released || handle->withdraw)
        return;
    // Avahi always picks another name on a conflict; the caller asked it not to.
    if (error == kDNSServiceErr_NoError && handle->noAutoRename && !handle->name.empty() &&
        handle->name != text(name)) {
        handle->withdraw = true;
        error = kDNSServiceErr_NameConflict;
        name = handle->name.c_str();
    }
    handle->registerReply(handle->ref(), flags, error, text(name), text(type), text(domain),
                          handle->context);
}

void DNSSD_API onBrowse(DNSServiceRef, DNSServiceFlags flags, uint32_t interfaceIndex,
                        DNSServiceErrorType error, const char* name, const char* type,
                        const char* domain, void* context) {
    auto* handle = static_cast<Handle*>(context);
    if (handle->released)
        return;
    if (error == kDNSServiceErr_NoError &&
        !handle->firstAddOrLastRemove(
            flags, joinKey(interfaceIndex, {text(name), text(type), text(domain)})))
        return;
    handle->browseReply(handle->ref(), flags, interfaceIndex, error, text(name), text(type),
                        text(domain), handle->context);
}

void DNSSD_API onResolve(DNSServiceRef, DNSServiceFlags flags, uint32_t interfaceIndex,
                         DNSServiceErrorType error, const char* fullname, const char* host,
                         uint16_t port, uint16_t txtLen, const unsigned char* txt, void* context) {
    auto* handle = static_cast<Handle*>(context);
    if (handle->released)
        return;
    if (error != kDNSServiceErr_NoError && handle->pollFd >= 0 && !handle->records &&
        resolveFromRecords(*handle, error))
        return;
    // Avahi gives null names with its errors (a resolve that timed out): callers get "".
    handle->resolveReply(handle->ref(), flags, interfaceIndex, error, text(fullname), text(host),
                         port, txtLen, txt, handle->context);
}

void DNSSD_API onQueryRecord(DNSServiceRef, DNSServiceFlags flags, uint32_t interfaceIndex,
                             DNSServiceErrorType error, const char* fullname, uint16_t rrtype,
                             uint16_t rrclass, uint16_t rdlen, const void* rdata, uint32_t ttl,
                             void* context) {
    auto* handle = static_cast<Handle*>(context);
    if (handle->released)
        return;
    if (error == kDNSServiceErr_NoError) {
        std::string_view data(static_cast<const char*>(rdata), rdata ? rdlen : 0);
        std::string key = joinKey(interfaceIndex, {text(fullname), std::to_string(rrtype),
                                                   std::to_string(rrclass), data});
        if (!handle->firstAddOrLastRemove(flags, key))
            return;
    }
    handle->queryReply(handle->ref(), flags, interfaceIndex, error, text(fullname), rrtype, rrclass,
                       rdlen, rdata, ttl, handle->context);
}

void DNSSD_API onAddress(DNSServiceRef, DNSServiceFlags flags, uint32_t interfaceIndex,
                         DNSServiceErrorType error, const char*, uint16_t, uint16_t, uint16_t rdlen,
                         const void* rdata, uint32_t ttl, void* context) {
    auto* handle = static_cast<Handle*>(context);
    if (handle->released)
        return;
    // Answered under the host name as asked, as Bonjour does (Avahi may drop the final dot).
    const char* host = handle->name.c_str();
    if (error != kDNSServiceErr_NoError) {
        handle->addrInfoReply(handle->ref(), flags, interfaceIndex, error, host, nullptr, ttl,
                              handle->context);
        return;
    }
    if (rdlen != sizeof(in_addr) || !rdata)
        return;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::memcpy(&address.sin_addr, rdata, sizeof(in_addr));
    std::string_view data(static_cast<const char*>(rdata), rdlen);
    if (!handle->firstAddOrLastRemove(flags, joinKey(interfaceIndex, {data})))
        return;
    handle->addrInfoReply(handle->ref(), flags, interfaceIndex, error, host,
                          reinterpret_cast<const sockaddr*>(&address), ttl, handle->context);
}

}  // namespace

VELMOR_EXPORT int DNSSD_API DNSServiceRefSockFD(DNSServiceRef sdRef) {
    std::lock_guard<std::mutex> lock(registry().mutex);
    auto* handle = reinterpret_cast<Handle*>(sdRef);
    if (!registry().handles.count(handle))
        return -1;
    if (handle->pollFd >= 0)
        return handle->pollFd;
    return handle->inner ? avahi().refSockFD(handle->inner) : handle->idleFd;
}

VELMOR_EXPORT DNSServiceErrorType DNSSD_API DNSServiceProcessResult(DNSServiceRef sdRef) {
    if (!sdRef)
        return kDNSServiceErr_BadParam;
    Handle* handle = enter(sdRef);
    if (!handle)
        return kDNSServiceErr_BadReference;
    DNSServiceErrorType result = kDNSServiceErr_NoError;
    if (!handle->inner && handle->pendingConflict && !handle->released) {
        eventfd_t drained = 0;
        eventfd_read(handle->idleFd, &drained);
        handle->pendingConflict = false;
        handle->registerReply(handle->ref(), 0, kDNSServiceErr_NameConflict, handle->name.c_str(),
                              handle->type.c_str(), "local.", handle->context);
    } else if (handle->pollFd >= 0) {
        result = processResolve(*handle);
    } else if (handle->inner) {
        result = avahi().processResult(handle->inner);
        if (handle->withdraw && !handle->released) {
            // Withdraws the renamed service; the caller's socket stays valid but stays quiet
            // until the caller deallocates the handle.
            int idle = eventfd(0, EFD_CLOEXEC);
            DNSServiceRef renamed = nullptr;
            {
                std::lock_guard<std::mutex> lock(registry().mutex);
                std::swap(renamed, handle->inner);
                handle->idleFd = idle;
            }
            avahi().refDeallocate(renamed);
        }
    }
    leave(handle);
    return result;
}

VELMOR_EXPORT void DNSSD_API DNSServiceRefDeallocate(DNSServiceRef sdRef) {
    auto* handle = reinterpret_cast<Handle*>(sdRef);
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        if (registry().handles.erase(handle) == 1) {
            handle->released = true;
            if (handle->dispatching > 0)
                return;  // the dispatch under way frees it
        } else {
            handle = nullptr;
        }
    }
    if (handle) {
        delete handle;
        return;
    }
    // Not ours: the compatibility library ends its own references through this name, which
    // resolves to us when this library is loaded globally.
    if (sdRef && avahi().loaded)
        avahi().refDeallocate(sdRef);
}

namespace {

// Avahi publishes the entries of a TXT record in reverse order; handing it the record reversed
// publishes them in the caller's order, as Bonjour does. A malformed record goes as it came.
std::vector<unsigned char> reversedTxt(const void* record, uint16_t length) {
    const auto* bytes = static_cast<const unsigned char*>(record);
    std::vector<std::pair<std::size_t, std::size_t>> entries;
    for (std::size_t at = 0; at < length;) {
        const std::size_t size = bytes[at];
        if (at + 1 + size > length)
            return {bytes, bytes + length};
        entries.emplace_back(at, size + 1);
        at += size + 1;
    }
    std::vector<unsigned char> reversed;
    reversed.reserve(length);
    for (auto it = entries.rbegin(); it != entries.rend(); ++it)
        reversed.insert(reversed.end(), bytes + it->first, bytes + it->first + it->second);
    return reversed;
}

}  // namespace

VELMOR_EXPORT DNSServiceErrorType DNSSD_API DNSServiceRegister(
    DNSServiceRef* sdRef, DNSServiceFlags flags, uint32_t interfaceIndex, const char* name,
    const char* regtype, const char* domain, const char* host, uint16_t port, uint16_t txtLen,
    const void* txtRecord, DNSServiceRegisterReply callBack, void* context) {
    if (!avahi().loaded)
        return kDNSServiceErr_ServiceNotRunning;
    if (!sdRef || !callBack)
        return kDNSServiceErr_BadParam;
    auto* handle = new Handle(context);
    handle->registerReply = callBack;
    handle->name = text(name);
    handle->noAutoRename = (flags & kDNSServiceFlagsNoAutoRename) != 0;
    const std::vector<unsigned char> txt =
        txtRecord ? reversedTxt(txtRecord, txtLen) : std::vector<unsigned char>();
    // Avahi refuses every flag here; the rename rule is ours to apply.
    DNSServiceErrorType error = avahi().registerService(
        &handle->inner, 0, interfaceIndex, name, regtype, domain, host, port, txtLen,
        txt.empty() ? txtRecord : txt.data(), onRegister, handle);
    if (error == kDNSServiceErr_NameConflict && handle->noAutoRename) {
        handle->inner = nullptr;
        handle->idleFd = eventfd(1, EFD_CLOEXEC);
        handle->pendingConflict = handle->idleFd >= 0;
        handle->type = text(regtype);
        if (handle->pendingConflict)
            error = kDNSServiceErr_NoError;
    }
    return adopt(handle, error, sdRef);
}

VELMOR_EXPORT DNSServiceErrorType DNSSD_API DNSServiceBrowse(
    DNSServiceRef* sdRef, DNSServiceFlags, uint32_t interfaceIndex, const char* regtype,
    const char* domain, DNSServiceBrowseReply callBack, void* context) {
    if (!avahi().loaded)
        return kDNSServiceErr_ServiceNotRunning;
    if (!sdRef || !callBack)
        return kDNSServiceErr_BadParam;
    auto* handle = new Handle(context);
    handle->browseReply = callBack;
    return adopt(
        handle,
        avahi().browse(&handle->inner, 0, interfaceIndex, regtype, domain, onBrowse, handle),
        sdRef);
}

VELMOR_EXPORT DNSServiceErrorType DNSSD_API DNSServiceResolve(
    DNSServiceRef* sdRef, DNSServiceFlags, uint32_t interfaceIndex, const char* name,
    const char* regtype, const char* domain, DNSServiceResolveReply callBack, void* context) {
    if (!avahi().loaded)
        return kDNSServiceErr_ServiceNotRunning;
    if (!sdRef || !callBack)
        return kDNSServiceErr_BadParam;
    auto* handle = new Handle(context);
    handle->resolveReply = callBack;
    handle->name = text(name);
    handle->type = text(regtype);
    handle->domain = text(domain);
    handle->interfaceIndex = interfaceIndex;
    DNSServiceErrorType error = avahi().resolve(&handle->inner, 0, interfaceIndex, name, regtype,
                                                domain, onResolve, handle);
    // Without its own socket the resolve goes as Avahi makes it, and may time out.
    if (error == kDNSServiceErr_NoError)
        handle->pollFd = resolveSocket(avahi().refSockFD(handle->inner));
    return adopt(handle, error, sdRef);
}

VELMOR_EXPORT DNSServiceErrorType DNSSD_API DNSServiceQueryRecord(
    DNSServiceRef* sdRef, DNSServiceFlags, uint32_t interfaceIndex, const char* fullname,
    uint16_t rrtype, uint16_t rrclass, DNSServiceQueryRecordReply callBack, void* context) {
    if (!avahi().loaded)
        return kDNSServiceErr_ServiceNotRunning;
    if (!sdRef || !callBack)
        return kDNSServiceErr_BadParam;
    auto* handle = new Handle(context);
    handle->queryReply = callBack;
    return adopt(handle,
                 avahi().queryRecord(&handle->inner, 0, interfaceIndex, fullname, rrtype, rrclass,
                                     onQueryRecord, handle),
                 sdRef);
}

VELMOR_EXPORT DNSServiceErrorType DNSSD_API DNSServiceReconfirmRecord(DNSServiceFlags, uint32_t,
                                                                      const char*, uint16_t,
                                                                      uint16_t, uint16_t,
                                                                      const void*) {
    // Avahi has no way to ask for a record to be verified again; its cache ages records out.
    if (!avahi().loaded)
        return kDNSServiceErr_ServiceNotRunning;
    return kDNSServiceErr_NoError;
}

VELMOR_EXPORT DNSServiceErrorType DNSSD_API DNSServiceGetAddrInfo(
    DNSServiceRef* sdRef, DNSServiceFlags, uint32_t interfaceIndex, DNSServiceProtocol protocol,
    const char* hostname, DNSServiceGetAddrInfoReply callBack, void* context) {
    if (!avahi().loaded)
        return kDNSServiceErr_ServiceNotRunning;
    if (!sdRef || !callBack || !hostname)
        return kDNSServiceErr_BadParam;
    // IPv4 only: 0 means "what the host has", which includes IPv4.
    if (protocol != 0 && !(protocol & kDNSServiceProtocol_IPv4))
        return kDNSServiceErr_Unsupported;
    auto* handle = new Handle(context);
    handle->addrInfoReply = callBack;
    handle->name = hostname;
    return adopt(handle,
                 avahi().queryRecord(&handle->inner, 0, interfaceIndex, hostname, kDNSServiceType_A,
                                     kDNSServiceClass_IN, onAddress, handle),
                 sdRef);
}
