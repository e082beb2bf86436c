#pragma once
// The fake DNS-SD library's control interface, found with dlsym in the library the zeroconf
// table loaded (VELMOR_DNSSD_LIBRARY). Operation kinds are named by the function that opens
// them ("DNSServiceBrowse", ...); each kind is matched on one argument, its key: the regtype of
// a browse, the name of a resolve or registration, the full name of a query, the host name of
// an address query. Answers go to the oldest open operation with that key and are delivered
// when the library's poll thread calls DNSServiceProcessResult.

#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace fake_dnssd {

/// \brief The control functions of the loaded fake.
struct control {
    void (*reset)();
    // Calls made to one DNS-SD function since the last reset.
    int (*calls)(const char* function);
    // Makes every later call of function fail with error (0: succeed again).
    void (*fail)(const char* function, std::int32_t error);
    // While on, DNSServiceRefSockFD answers -1.
    void (*invalid_sockets)(int on);
    // Waits until an operation of that kind with that key (null: any) is open; 1 when it is.
    int (*wait_open)(const char* function, const char* key, int timeout_ms);
    int (*open_count)(const char* function);
    // The socket of the oldest open operation of that kind and key, or -1.
    int (*socket)(const char* function, const char* key);
    // The arguments of the last call of function, as "name=value" pairs; 0 when never called.
    int (*last_call)(const char* function, char* text, int size);
    // Waits until every queued answer has been delivered and its callback has returned.
    int (*wait_idle)(int timeout_ms);
    int (*browse_event)(const char* regtype, std::uint32_t flags, std::uint32_t interface_index,
                        std::int32_t error, const char* name, const char* type, const char* domain);
    int (*resolve_answer)(const char* name, std::uint32_t flags, std::uint32_t interface_index,
                          std::int32_t error, const char* fullname, const char* host,
                          std::uint16_t port_network_order, std::uint16_t txt_length,
                          const unsigned char* txt);
    int (*query_answer)(const char* fullname, std::uint32_t flags, std::uint32_t interface_index,
                        std::int32_t error, const char* answer_name, std::uint16_t rrtype,
                        std::uint16_t rrclass, std::uint16_t length, const void* data,
                        std::uint32_t ttl);
    int (*register_answer)(const char* name, std::uint32_t flags, std::int32_t error,
                           const char* answer_name, const char* type, const char* domain);
    // family 2: address holds 4 bytes; 10: 16 bytes; 0: no address structure.
    int (*address_answer)(const char* hostname, std::uint32_t flags, std::uint32_t interface_index,
                          std::int32_t error, const char* answer_host, int family,
                          const unsigned char* address);

    std::string last(const char* function) const {
        char text[4096];
        return last_call(function, text, sizeof(text)) ? std::string(text) : std::string();
    }

    /// The fake that the zeroconf table loaded into this process.
    static const control& get() {
        static const control instance = load();
        return instance;
    }

private:
    template <typename Function>
    static void find(void* library, const char* name, Function& function) {
        function = reinterpret_cast<Function>(dlsym(library, name));
        if (!function)
            throw std::runtime_error(std::string("fake DNS-SD library lacks ") + name);
    }

    static control load() {
        const char* path = std::getenv("VELMOR_DNSSD_LIBRARY");
        void* library = path ? dlopen(path, RTLD_NOW | RTLD_NOLOAD) : nullptr;
        if (!library)
            throw std::runtime_error("the fake DNS-SD library is not loaded");
        control c{};
        find(library, "fake_dnssd_reset", c.reset);
        find(library, "fake_dnssd_calls", c.calls);
        find(library, "fake_dnssd_fail", c.fail);
        find(library, "fake_dnssd_invalid_sockets", c.invalid_sockets);
        find(library, "fake_dnssd_wait_open", c.wait_open);
        find(library, "fake_dnssd_open_count", c.open_count);
        find(library, "fake_dnssd_socket", c.socket);
        find(library, "fake_dnssd_last_call", c.last_call);
        find(library, "fake_dnssd_wait_idle", c.wait_idle);
        find(library, "fake_dnssd_browse_event", c.browse_event);
        find(library, "fake_dnssd_resolve_answer", c.resolve_answer);
        find(library, "fake_dnssd_query_answer", c.query_answer);
        find(library, "fake_dnssd_register_answer", c.register_answer);
        find(library, "fake_dnssd_address_answer", c.address_answer);
        // The table holds its own reference; this one only looked the functions up.
        dlclose(library);
        return c;
    }
};

}  // namespace fake_dnssd
