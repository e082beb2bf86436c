#pragma once
// The DNS-SD functions the library calls, as dns_sd.h declares them. They are defined by the
// entry-point table (dnssd_table.cpp), never by a linked DNS-SD library.

#include <cstdint>

#ifdef _WIN32
#include <winsock2.h>
#endif

#include <dns_sd.h>

#ifndef _WIN32
#include <sys/socket.h>

// Avahi's dns_sd.h predates DNSServiceGetAddrInfo; declared as the current dns_sd.h has it.
extern "C" {

typedef uint32_t DNSServiceProtocol;

typedef void(DNSSD_API* DNSServiceGetAddrInfoReply)(DNSServiceRef sdRef, DNSServiceFlags flags,
                                                    uint32_t interfaceIndex,
                                                    DNSServiceErrorType errorCode,
                                                    const char* hostname,
                                                    const struct sockaddr* address, uint32_t ttl,
                                                    void* context);

#define ZEROCONF_HIDDEN __attribute__((visibility("hidden")))

ZEROCONF_HIDDEN DNSServiceErrorType DNSSD_API
DNSServiceGetAddrInfo(DNSServiceRef* sdRef, DNSServiceFlags flags, uint32_t interfaceIndex,
                      DNSServiceProtocol protocol, const char* hostname,
                      DNSServiceGetAddrInfoReply callBack, void* context);

// Hidden, so that a shared library linking this one never exports the table's functions, and
// never shadows the library the table loaded (or that library's calls to itself).
ZEROCONF_HIDDEN int DNSSD_API DNSServiceRefSockFD(DNSServiceRef sdRef);
ZEROCONF_HIDDEN DNSServiceErrorType DNSSD_API DNSServiceProcessResult(DNSServiceRef sdRef);
ZEROCONF_HIDDEN void DNSSD_API DNSServiceRefDeallocate(DNSServiceRef sdRef);
ZEROCONF_HIDDEN DNSServiceErrorType DNSSD_API DNSServiceRegister(
    DNSServiceRef* sdRef, DNSServiceFlags flags, uint32_t interfaceIndex, const char* name,
    const char* regtype, const char* domain, const char* host, uint16_t port, uint16_t txtLen,
    const void* txtRecord, DNSServiceRegisterReply callBack, void* context);
ZEROCONF_HIDDEN DNSServiceErrorType DNSSD_API DNSServiceBrowse(
    DNSServiceRef* sdRef, DNSServiceFlags flags, uint32_t interfaceIndex, const char* regtype,
    const char* domain, DNSServiceBrowseReply callBack, void* context);
ZEROCONF_HIDDEN DNSServiceErrorType DNSSD_API DNSServiceResolve(
    DNSServiceRef* sdRef, DNSServiceFlags flags, uint32_t interfaceIndex, const char* name,
    const char* regtype, const char* domain, DNSServiceResolveReply callBack, void* context);
ZEROCONF_HIDDEN DNSServiceErrorType DNSSD_API DNSServiceQueryRecord(
    DNSServiceRef* sdRef, DNSServiceFlags flags, uint32_t interfaceIndex, const char* fullname,
    uint16_t rrtype, uint16_t rrclass, DNSServiceQueryRecordReply callBack, void* context);
ZEROCONF_HIDDEN DNSServiceErrorType DNSSD_API
DNSServiceReconfirmRecord(DNSServiceFlags flags, uint32_t interfaceIndex, const char* fullname,
                          uint16_t rrtype, uint16_t rrclass, uint16_t rdlen, const void* rdata);

#undef ZEROCONF_HIDDEN
}
#endif

namespace zeroconf::dnssd {

#ifdef _WIN32
using socket_type = dnssd_sock_t;
#else
using socket_type = int;
#endif

constexpr DNSServiceFlags flag_add = 0x2;
constexpr DNSServiceFlags flag_no_auto_rename = 0x8;
constexpr DNSServiceFlags flag_force = 0x800;
constexpr DNSServiceFlags flag_return_intermediates = 0x1000;
constexpr DNSServiceFlags flag_wake_on_resolve = 0x40000;
constexpr DNSServiceProtocol protocol_ipv4 = 0x1;
constexpr std::uint16_t type_a = 1;
constexpr std::uint16_t class_in = 1;

constexpr DNSServiceErrorType err_bad_param = -65540;
constexpr DNSServiceErrorType err_name_conflict = -65548;
constexpr DNSServiceErrorType err_service_not_running = -65563;

}  // namespace zeroconf::dnssd
