// The DNS-SD entry-point table: the library is loaded at start-up and each function is
// looked up on first use, so the program runs (with DNS-SD failing) where there is none.

#include <atomic>
#include <cstdlib>
#include <string>

#include "dnssd.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#endif

namespace {

#ifdef _WIN32
using module_handle = HMODULE;
#else
using module_handle = void*;
#endif

// Atomic: exit clears them while a client's poll thread may still be calling in.
std::atomic<module_handle> library{nullptr};
// Set once the loader ran; cleared again at exit.
std::atomic<std::atomic<module_handle>*> library_holder{nullptr};

#ifdef _WIN32

module_handle load_library() {
    return LoadLibraryW(L"dnssd.dll");
}

void* find_export(module_handle handle, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(handle, name));
}

void unload_library() {
    library_holder = nullptr;
    if (module_handle handle = library.exchange(nullptr))
        FreeLibrary(handle);
}

#else

std::string executable_folder() {
    char path[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0)
        return ".";
    std::string text(path, static_cast<std::size_t>(length));
    std::size_t slash = text.rfind('/');
    return slash == std::string::npos ? "." : text.substr(0, slash);
}

module_handle load_library() {
    const char* chosen = std::getenv("VELMOR_DNSSD_LIBRARY");
    if (chosen && !*chosen)
        return nullptr;
    std::string path = chosen ? chosen : executable_folder() + "/libvelmor_dnssd.so";
    return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* find_export(module_handle handle, const char* name) {
    return dlsym(handle, name);
}

void unload_library() {
    // Not dlclose()d: a client that lives until exit may still be inside the library on its
    // poll thread, and unmapping the code under it would crash the exit.
    library_holder = nullptr;
    library = nullptr;
}

#endif

struct table_loader {
    table_loader() {
        library = load_library();
        library_holder = &library;
        std::atexit(&unload_library);
    }
};
const table_loader loader;

// A missing export is looked up again on the next call; only found ones are cached.
template <typename Function>
Function entry(std::atomic<Function>& cache, const char* name) {
    std::atomic<module_handle>* holder = library_holder.load();
    module_handle handle = holder ? holder->load() : nullptr;
    if (!handle) {
        cache.store(nullptr, std::memory_order_relaxed);
        return nullptr;
    }
    Function function = cache.load(std::memory_order_relaxed);
    if (function)
        return function;
    function = reinterpret_cast<Function>(find_export(handle, name));
    cache.store(function, std::memory_order_relaxed);
    return function;
}

std::atomic<decltype(&DNSServiceRefSockFD)> ref_sock_fd{nullptr};
std::atomic<decltype(&DNSServiceProcessResult)> process_result{nullptr};
std::atomic<decltype(&DNSServiceRefDeallocate)> ref_deallocate{nullptr};
std::atomic<decltype(&DNSServiceRegister)> register_service{nullptr};
std::atomic<decltype(&DNSServiceBrowse)> browse{nullptr};
std::atomic<decltype(&DNSServiceResolve)> resolve{nullptr};
std::atomic<decltype(&DNSServiceQueryRecord)> query_record{nullptr};
std::atomic<decltype(&DNSServiceReconfirmRecord)> reconfirm_record{nullptr};
std::atomic<decltype(&DNSServiceGetAddrInfo)> get_addr_info{nullptr};

constexpr DNSServiceErrorType missing = zeroconf::dnssd::err_service_not_running;

}  // namespace

zeroconf::dnssd::socket_type DNSSD_API DNSServiceRefSockFD(DNSServiceRef sdRef) {
    auto function = entry(ref_sock_fd, "DNSServiceRefSockFD");
    return function ? function(sdRef) : -1;
}

DNSServiceErrorType DNSSD_API DNSServiceProcessResult(DNSServiceRef sdRef) {
    auto function = entry(process_result, "DNSServiceProcessResult");
    return function ? function(sdRef) : missing;
}

void DNSSD_API DNSServiceRefDeallocate(DNSServiceRef sdRef) {
    auto function = entry(ref_deallocate, "DNSServiceRefDeallocate");
    if (function)
        function(sdRef);
}

DNSServiceErrorType DNSSD_API DNSServiceRegister(DNSServiceRef* sdRef, DNSServiceFlags flags,
                                                 uint32_t interfaceIndex, const char* name,
                                                 const char* regtype, const char* domain,
                                                 const char* host, uint16_t port, uint16_t txtLen,
                                                 const void* txtRecord,
                                                 DNSServiceRegisterReply callBack, void* context) {
    auto function = entry(register_service, "DNSServiceRegister");
    return function ? function(sdRef, flags, interfaceIndex, name, regtype, domain, host, port,
                               txtLen, txtRecord, callBack, context)
                    : missing;
}

DNSServiceErrorType DNSSD_API DNSServiceBrowse(DNSServiceRef* sdRef, DNSServiceFlags flags,
                                               uint32_t interfaceIndex, const char* regtype,
                                               const char* domain, DNSServiceBrowseReply callBack,
                                               void* context) {
    auto function = entry(browse, "DNSServiceBrowse");
    return function ? function(sdRef, flags, interfaceIndex, regtype, domain, callBack, context)
                    : missing;
}

DNSServiceErrorType DNSSD_API DNSServiceResolve(DNSServiceRef* sdRef, DNSServiceFlags flags,
                                                uint32_t interfaceIndex, const char* name,
                                                const char* regtype, const char* domain,
                                                DNSServiceResolveReply callBack, void* context) {
    auto function = entry(resolve, "DNSServiceResolve");
    return function
               ? function(sdRef, flags, interfaceIndex, name, regtype, domain, callBack, context)
               : missing;
}

DNSServiceErrorType DNSSD_API DNSServiceQueryRecord(DNSServiceRef* sdRef, DNSServiceFlags flags,
                                                    uint32_t interfaceIndex, const char* fullname,
                                                    uint16_t rrtype, uint16_t rrclass,
                                                    DNSServiceQueryRecordReply callBack,
                                                    void* context) {
    auto function = entry(query_record, "DNSServiceQueryRecord");
    return function ? function(sdRef, flags, interfaceIndex, fullname, rrtype, rrclass, callBack,
                               context)
                    : missing;
}

DNSServiceErrorType DNSSD_API DNSServiceReconfirmRecord(DNSServiceFlags flags,
                                                        uint32_t interfaceIndex,
                                                        const char* fullname, uint16_t rrtype,
                                                        uint16_t rrclass, uint16_t rdlen,
                                                        const void* rdata) {
    auto function = entry(reconfirm_record, "DNSServiceReconfirmRecord");
    return function ? function(flags, interfaceIndex, fullname, rrtype, rrclass, rdlen, rdata)
                    : missing;
}

DNSServiceErrorType DNSSD_API DNSServiceGetAddrInfo(DNSServiceRef* sdRef, DNSServiceFlags flags,
                                                    uint32_t interfaceIndex,
                                                    DNSServiceProtocol protocol,
                                                    const char* hostname,
                                                    DNSServiceGetAddrInfoReply callBack,
                                                    void* context) {
    auto function = entry(get_addr_info, "DNSServiceGetAddrInfo");
    return function ? function(sdRef, flags, interfaceIndex, protocol, hostname, callBack, context)
                    : missing;
}
