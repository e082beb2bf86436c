#pragma once
// The fake DNS-SD library's controls (the test links the fake; the zeroconf table loads the same
// file through VELMOR_DNSSD_LIBRARY). Operations are named by the function that opens them and
// matched on one argument, their key: a browse's regtype, a resolve's or registration's name, a
// query's full name, an address query's host name. An answer goes to the oldest open operation
// with that key and is delivered when the poll thread calls DNSServiceProcessResult.
#include <cstdint>
#include <string>

extern "C" {
void fake_dnssd_reset();
void fake_dnssd_fail(const char* function, std::int32_t error);  // later calls fail; 0: succeed
int fake_dnssd_wait_open(const char* function, const char* key, int timeout_ms);  // key null: any
int fake_dnssd_open_count(const char* function);
int fake_dnssd_last_call(const char* function, char* text, int size);  // arguments, space-separated
int fake_dnssd_wait_idle(int timeout_ms);  // every queued answer delivered, its callback returned
int fake_dnssd_browse_event(const char* regtype, std::uint32_t flags, std::uint32_t interface_index,
                            std::int32_t error, const char* name, const char* type,
                            const char* domain);
int fake_dnssd_resolve_answer(const char* name, std::uint32_t flags, std::uint32_t interface_index,
                              std::int32_t error, const char* fullname, const char* host,
                              std::uint16_t port_network_order, std::uint16_t txt_length,
                              const unsigned char* txt);
int fake_dnssd_query_answer(const char* fullname, std::uint32_t flags,
                            std::uint32_t interface_index, std::int32_t error,
                            const char* answer_name, std::uint16_t rrtype, std::uint16_t rrclass,
                            std::uint16_t length, const void* data, std::uint32_t ttl);
int fake_dnssd_register_answer(const char* name, std::uint32_t flags, std::int32_t error,
                               const char* answer_name, const char* type, const char* domain);
// family 2: address holds 4 bytes; 10: 16 bytes; 0: no address structure.
int fake_dnssd_address_answer(const char* hostname, std::uint32_t flags,
                              std::uint32_t interface_index, std::int32_t error,
                              const char* answer_host, int family, const unsigned char* address);
}

namespace fake_dnssd {

struct control {
#define FAKE_DNSSD(name) decltype(&fake_dnssd_##name) name = &fake_dnssd_##name;
    FAKE_DNSSD(reset)
    FAKE_DNSSD(fail)
    FAKE_DNSSD(wait_open) FAKE_DNSSD(open_count) FAKE_DNSSD(last_call) FAKE_DNSSD(wait_idle)
        FAKE_DNSSD(browse_event) FAKE_DNSSD(resolve_answer) FAKE_DNSSD(query_answer)
            FAKE_DNSSD(register_answer) FAKE_DNSSD(address_answer)
#undef FAKE_DNSSD

                std::string last(const char* function) const {
        char text[4096];
        return last_call(function, text, sizeof(text)) ? std::string(text) : std::string();
    }
    static const control& get() {
        static const control instance;
        return instance;
    }
};

}  // namespace fake_dnssd
