#pragma once
// The DNS-SD functions the library calls, as dns_sd.h declares them. They are defined by the
// entry-point table (dnssd_table.cpp), never by a linked DNS-SD library.

#include <cstdint>

#ifdef _WIN32
#include <winsock2.h>
#endif

#include <dns_sd.h>

#ifndef _WIN32
// Avahi's dns_sd.h predates DNSServiceGetAddrInfo; the binding's header declares it. The
// library is compiled with hidden visibility, so a shared library linking it never exports
// the table's functions, nor shadows the library the table loaded.
#include "velmor_dnssd.h"
#endif

namespace zeroconf::dnssd {

#ifdef _WIN32
using socket_type = dnssd_sock_t;
#else
using socket_type = int;
#endif
// What DNSServiceRefSockFD gives for no socket: -1, or INVALID_SOCKET (all bits set) on Windows.
constexpr socket_type no_socket = static_cast<socket_type>(-1);

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
