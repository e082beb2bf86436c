#pragma once
// The DNS-SD API as the zeroconf library calls it on Windows, where dnssd.dll is loaded at run
// time and no SDK header need be present: only the types, constants and functions the
// library uses, with the documented signatures and calling convention.

#include <winsock2.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DNSSD_API __stdcall

typedef SOCKET dnssd_sock_t;

typedef struct _DNSServiceRef_t* DNSServiceRef;
typedef uint32_t DNSServiceFlags;
typedef uint32_t DNSServiceProtocol;
typedef int32_t DNSServiceErrorType;

enum {
    kDNSServiceFlagsMoreComing = 0x1,
    kDNSServiceFlagsAdd = 0x2,
    kDNSServiceFlagsNoAutoRename = 0x8,
    kDNSServiceFlagsForce = 0x800,
    kDNSServiceFlagsReturnIntermediates = 0x1000,
    kDNSServiceFlagsWakeOnResolve = 0x40000,
};

enum {
    kDNSServiceProtocol_IPv4 = 0x01,
    kDNSServiceProtocol_IPv6 = 0x02,
};

enum {
    kDNSServiceType_A = 1,
    kDNSServiceClass_IN = 1,
};

enum {
    kDNSServiceErr_NoError = 0,
    kDNSServiceErr_Unknown = -65537,
    kDNSServiceErr_BadParam = -65540,
    kDNSServiceErr_Unsupported = -65544,
    kDNSServiceErr_NameConflict = -65548,
    kDNSServiceErr_ServiceNotRunning = -65563,
};

dnssd_sock_t DNSSD_API DNSServiceRefSockFD(DNSServiceRef sdRef);
DNSServiceErrorType DNSSD_API DNSServiceProcessResult(DNSServiceRef sdRef);
void DNSSD_API DNSServiceRefDeallocate(DNSServiceRef sdRef);

typedef void(DNSSD_API* DNSServiceRegisterReply)(DNSServiceRef sdRef, DNSServiceFlags flags,
                                                 DNSServiceErrorType errorCode, const char* name,
                                                 const char* regtype, const char* domain,
                                                 void* context);
DNSServiceErrorType DNSSD_API DNSServiceRegister(DNSServiceRef* sdRef, DNSServiceFlags flags,
                                                 uint32_t interfaceIndex, const char* name,
                                                 const char* regtype, const char* domain,
                                                 const char* host, uint16_t port, uint16_t txtLen,
                                                 const void* txtRecord,
                                                 DNSServiceRegisterReply callBack, void* context);

typedef void(DNSSD_API* DNSServiceBrowseReply)(DNSServiceRef sdRef, DNSServiceFlags flags,
                                               uint32_t interfaceIndex,
                                               DNSServiceErrorType errorCode,
                                               const char* serviceName, const char* regtype,
                                               const char* replyDomain, void* context);
DNSServiceErrorType DNSSD_API DNSServiceBrowse(DNSServiceRef* sdRef, DNSServiceFlags flags,
                                               uint32_t interfaceIndex, const char* regtype,
                                               const char* domain, DNSServiceBrowseReply callBack,
                                               void* context);

typedef void(DNSSD_API* DNSServiceResolveReply)(DNSServiceRef sdRef, DNSServiceFlags flags,
                                                uint32_t interfaceIndex,
                                                DNSServiceErrorType errorCode,
                                                const char* fullname, const char* hosttarget,
                                                uint16_t port, uint16_t txtLen,
                                                const unsigned char* txtRecord, void* context);
DNSServiceErrorType DNSSD_API DNSServiceResolve(DNSServiceRef* sdRef, DNSServiceFlags flags,
                                                uint32_t interfaceIndex, const char* name,
                                                const char* regtype, const char* domain,
                                                DNSServiceResolveReply callBack, void* context);

typedef void(DNSSD_API* DNSServiceQueryRecordReply)(DNSServiceRef sdRef, DNSServiceFlags flags,
                                                    uint32_t interfaceIndex,
                                                    DNSServiceErrorType errorCode,
                                                    const char* fullname, uint16_t rrtype,
                                                    uint16_t rrclass, uint16_t rdlen,
                                                    const void* rdata, uint32_t ttl,
                                                    void* context);
DNSServiceErrorType DNSSD_API DNSServiceQueryRecord(DNSServiceRef* sdRef, DNSServiceFlags flags,
                                                    uint32_t interfaceIndex, const char* fullname,
                                                    uint16_t rrtype, uint16_t rrclass,
                                                    DNSServiceQueryRecordReply callBack,
                                                    void* context);

DNSServiceErrorType DNSSD_API DNSServiceReconfirmRecord(DNSServiceFlags flags,
                                                        uint32_t interfaceIndex,
                                                        const char* fullname, uint16_t rrtype,
                                                        uint16_t rrclass, uint16_t rdlen,
                                                        const void* rdata);

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
