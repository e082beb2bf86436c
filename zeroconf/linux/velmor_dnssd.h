#pragma once
// The DNS-SD API as libvelmor_dnssd.so exports it: Avahi's dns_sd.h, plus what that older
// header lacks (DNSServiceGetAddrInfo and its types), declared as the current dns_sd.h does.

#include <dns_sd.h>
#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t DNSServiceProtocol;

enum {
    kDNSServiceProtocol_IPv4 = 0x01,
    kDNSServiceProtocol_IPv6 = 0x02,
};

enum {
    kDNSServiceFlagsWakeOnResolve = 0x40000,
    kDNSServiceFlagsReturnIntermediates = 0x1000,
    kDNSServiceErr_ServiceNotRunning = -65563,
};

typedef void(DNSSD_API* DNSServiceGetAddrInfoReply)(DNSServiceRef sdRef, DNSServiceFlags flags,
                                                    uint32_t interfaceIndex,
                                                    DNSServiceErrorType errorCode,
                                                    const char* hostname,
                                                    const struct sockaddr* address, uint32_t ttl,
                                                    void* context);

DNSServiceErrorType DNSSD_API DNSServiceGetAddrInfo(DNSServiceRef* sdRef, DNSServiceFlags flags,
                                                    uint32_t interfaceIndex,
                                                    DNSServiceProtocol protocol,
                                                    const char* hostname,
                                                    DNSServiceGetAddrInfoReply callBack,
                                                    void* context);

#ifdef __cplusplus
}
#endif
