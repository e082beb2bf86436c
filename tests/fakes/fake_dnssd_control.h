#pragma once
// The fake DNS-SD library's controls, found with dlsym in the library the zeroconf table loaded
// (VELMOR_DNSSD_LIBRARY). Operations are named by the function that opens them and matched on
// one argument, their key: a browse's regtype, a resolve's or registration's name, a query's
// full name, an address query's host name. An answer goes to the oldest open operation with
// that key and is delivered when the poll thread calls DNSServiceProcessResult.
#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace fake_dnssd {

struct control {
    void (*reset)();
    int (*calls)(const char* function);                      // calls since the last reset
    void (*fail)(const char* function, std::int32_t error);  // later calls fail; 0: succeed
    void (*invalid_sockets)(int on);  // DNSServiceRefSockFD answers -1 while on
    int (*wait_open)(const char* function, const char* key, int timeout_ms);  // null key: any
    int (*open_count)(const char* function);
    int (*last_call)(const char* function, char* text, int size);  // "name=value ..." pairs
    int (*wait_idle)(int timeout_ms);  // every queued answer delivered, its callback returned
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

    static const control& get() {
        static const control instance = [] {
            const char* path = std::getenv("VELMOR_DNSSD_LIBRARY");
            void* library = path ? dlopen(path, RTLD_NOW | RTLD_NOLOAD) : nullptr;
            if (!library)
                throw std::runtime_error("the fake DNS-SD library is not loaded");
            control c{};
            auto find = [library](auto& function, const char* name) {
                function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(
                    dlsym(library, (std::string("fake_dnssd_") + name).c_str()));
                if (!function)
                    throw std::runtime_error(std::string("fake DNS-SD library lacks ") + name);
            };
            find(c.reset, "reset"), find(c.fail, "fail");
            find(c.invalid_sockets, "invalid_sockets"), find(c.wait_open, "wait_open");
            find(c.open_count, "open_count");
            find(c.last_call, "last_call"), find(c.wait_idle, "wait_idle");
            find(c.browse_event, "browse_event"), find(c.resolve_answer, "resolve_answer");
            find(c.query_answer, "query_answer"), find(c.register_answer, "register_answer");
            find(c.address_answer, "address_answer");
            dlclose(library);  // the table holds its own reference
            return c;
        }();
        return instance;
    }
};

}  // namespace fake_dnssd
