#pragma once
// What the binding's two halves share: the compatibility library's entry points, and the
// handles given out in place of its references.

#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "velmor_dnssd.h"

namespace velmor_dnssd {

// The compatibility library's own entry points.
struct Avahi {
    decltype(&::DNSServiceRefSockFD) refSockFD = nullptr;
    decltype(&::DNSServiceProcessResult) processResult = nullptr;
    decltype(&::DNSServiceRefDeallocate) refDeallocate = nullptr;
    decltype(&::DNSServiceRegister) registerService = nullptr;
    decltype(&::DNSServiceBrowse) browse = nullptr;
    decltype(&::DNSServiceResolve) resolve = nullptr;
    decltype(&::DNSServiceQueryRecord) queryRecord = nullptr;
    decltype(&::DNSServiceConstructFullName) constructFullName = nullptr;
    bool loaded = false;
};

const Avahi& avahi();

// The SRV and TXT queries that finish a resolve Avahi gave up (see dnssd_records.cpp).
struct FromRecords {
    ~FromRecords() {
        for (DNSServiceRef ref : {srv, txt})
            if (ref)
                avahi().refDeallocate(ref);
        if (timer >= 0)
            close(timer);
    }
    DNSServiceRef srv = nullptr;
    DNSServiceRef txt = nullptr;
    int timer = -1;
    DNSServiceErrorType error = kDNSServiceErr_NoError;  // Avahi's, if the records do not come
    std::string fullname;
    std::string host;   // the SRV record's target, empty until it came
    uint16_t port = 0;  // network order, as the SRV record has it
    std::vector<unsigned char> text;
    bool haveTxt = false, done = false;
};

struct Handle {
    explicit Handle(void* ctx) : context(ctx) {}
    ~Handle() {
        records.reset();
        if (inner)
            avahi().refDeallocate(inner);
        for (int fd : {idleFd, pollFd})
            if (fd >= 0)
                close(fd);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    DNSServiceRef ref() { return reinterpret_cast<DNSServiceRef>(this); }

    // Bonjour reports an instance once; Avahi once per transport. Counts the reports of each
    // key, so that only the first add and the last remove go through.
    bool firstAddOrLastRemove(DNSServiceFlags flags, const std::string& key) {
        if (flags & kDNSServiceFlagsAdd)
            return ++seen[key] == 1;
        auto it = seen.find(key);
        if (it == seen.end())
            return false;
        if (--it->second > 0)
            return false;
        seen.erase(it);
        return true;
    }

    void* const context;
    // The compatibility library's reference, owned; and what stands in for its socket once a
    // renamed registration is withdrawn. Changed under the registry's mutex.
    DNSServiceRef inner = nullptr;
    int idleFd = -1;
    DNSServiceRegisterReply registerReply = nullptr;
    DNSServiceBrowseReply browseReply = nullptr;
    DNSServiceResolveReply resolveReply = nullptr;
    DNSServiceQueryRecordReply queryReply = nullptr;
    DNSServiceGetAddrInfoReply addrInfoReply = nullptr;
    std::string name;  // registration: the name asked for; address query: the host name
    bool noAutoRename = false;
    bool withdraw = false;  // the daemon renamed a registration that must not be renamed
    // A name taken on this host is refused at once by Avahi; Bonjour reports it through the
    // callback, so the refusal waits in idleFd (readable) for the next ProcessResult.
    bool pendingConflict = false;
    std::string type;
    std::map<std::string, int> seen;
    // A resolve: what it asked for, and the caller's socket, which stays the same when the
    // records take over from Avahi's resolve.
    std::string domain;
    uint32_t interfaceIndex = 0;
    int pollFd = -1;
    std::unique_ptr<FromRecords> records;

    // Guarded by the registry's mutex: the callers may end a handle from another thread, or from
    // inside its own callback, while DNSServiceProcessResult runs on it.
    int dispatching = 0;
    std::atomic<bool> released{false};
};

// The handles given out and not yet deallocated. Never destroyed: callers may deallocate
// from their own exit handlers.
struct Registry {
    std::mutex mutex;
    std::unordered_set<Handle*> handles;
};
Registry& registry();

/// The socket a resolve hands its caller, over Avahi's own (avahiFd); -1 if none can be made.
int resolveSocket(int avahiFd);
/// Takes over a resolve that Avahi ended with error; false when the queries cannot start.
bool resolveFromRecords(Handle& handle, DNSServiceErrorType error);
/// Serves a resolve whose socket (pollFd) is ready.
DNSServiceErrorType processResolve(Handle& handle);

}  // namespace velmor_dnssd
