// A resolve finished from the instance's SRV and TXT records once Avahi has given it up.
// Avahi resolves over the transport it heard first and times out when that one has no address
// for the host (it loses its own IPv6 address record when the IPv4 address goes and comes back
// while it runs). Record queries hear both transports; they get the time Avahi itself allows.

#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "dnssd_handle.h"

namespace velmor_dnssd {

namespace {

constexpr time_t kRecordsWaitSeconds = 5;

// A label as DNS-SD writes it in a name: dots and backslashes escaped, control bytes as \DDD.
std::string escapedLabel(std::string_view label) {
    std::string out;
    for (unsigned char c : label) {
        if (c == '.' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7f) {
            char code[5];
            std::snprintf(code, sizeof code, "\\%03u", c);
            out += code;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

bool readable(int fd) {
    pollfd ready{fd, POLLIN, 0};
    return fd >= 0 && ::poll(&ready, 1, 0) == 1;
}

// An SRV record's port and target (after priority and weight, the name in labels).
bool parseSrv(const unsigned char* data, std::size_t size, uint16_t& port, std::string& host) {
    if (size < 7)
        return false;
    std::string name;
    for (std::size_t at = 6; at < size;) {
        const std::size_t length = data[at++];
        if (length == 0 && !name.empty()) {
            std::memcpy(&port, data + 4, sizeof port);
            host = std::move(name);
            return true;
        }
        if (length == 0 || length > 63 || at + length > size)
            return false;
        name += escapedLabel({reinterpret_cast<const char*>(data + at), length}) + ".";
        at += length;
    }
    return false;
}

bool watch(int pollFd, int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return fd >= 0 && epoll_ctl(pollFd, EPOLL_CTL_ADD, fd, &event) == 0;
}

// Nothing more is reported, and the time limit no longer wakes the caller.
void stopWaiting(Handle& handle) {
    handle.records->done = true;
    epoll_ctl(handle.pollFd, EPOLL_CTL_DEL, handle.records->timer, nullptr);
}

void DNSSD_API onRecord(DNSServiceRef, DNSServiceFlags flags, uint32_t, DNSServiceErrorType error,
                        const char*, uint16_t rrtype, uint16_t, uint16_t rdlen, const void* rdata,
                        uint32_t, void* context) {
    auto* handle = static_cast<Handle*>(context);
    FromRecords& records = *handle->records;
    if (handle->released || records.done || error != kDNSServiceErr_NoError ||
        !(flags & kDNSServiceFlagsAdd) || (rdlen && !rdata))
        return;
    const auto* bytes = static_cast<const unsigned char*>(rdata);
    if (rrtype == kDNSServiceType_SRV)
        parseSrv(bytes, rdlen, records.port, records.host);
    if (rrtype == kDNSServiceType_TXT) {
        records.text.assign(bytes, bytes + rdlen);
        records.haveTxt = true;
    }
    if (records.host.empty() || !records.haveTxt)
        return;
    stopWaiting(*handle);
    handle->resolveReply(handle->ref(), 0, handle->interfaceIndex, kDNSServiceErr_NoError,
                         records.fullname.c_str(), records.host.c_str(), records.port,
                         static_cast<uint16_t>(records.text.size()), records.text.data(),
                         handle->context);
}

}  // namespace

int resolveSocket(int avahiFd) {
    int pollFd = epoll_create1(EPOLL_CLOEXEC);
    if (pollFd >= 0 && !watch(pollFd, avahiFd)) {
        close(pollFd);
        pollFd = -1;
    }
    return pollFd;
}

bool resolveFromRecords(Handle& handle, DNSServiceErrorType error) {
    char fullname[kDNSServiceMaxDomainName];
    if (!avahi().constructFullName ||
        avahi().constructFullName(fullname, handle.name.c_str(), handle.type.c_str(),
                                  handle.domain.empty() ? "local" : handle.domain.c_str()) != 0)
        return false;
    auto records = std::make_unique<FromRecords>();
    records->error = error;
    records->fullname = fullname;
    records->timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const itimerspec wait{{0, 0}, {kRecordsWaitSeconds, 0}};
    auto query = [&](DNSServiceRef& ref, uint16_t type) {
        return avahi().queryRecord(&ref, 0, handle.interfaceIndex, records->fullname.c_str(), type,
                                   kDNSServiceClass_IN, onRecord,
                                   &handle) == kDNSServiceErr_NoError &&
               watch(handle.pollFd, avahi().refSockFD(ref));
    };
    if (records->timer < 0 || timerfd_settime(records->timer, 0, &wait, nullptr) != 0 ||
        !watch(handle.pollFd, records->timer) || !query(records->srv, kDNSServiceType_SRV) ||
        !query(records->txt, kDNSServiceType_TXT))
        return false;
    handle.records = std::move(records);
    return true;
}

// A resolve's socket is ready: Avahi's resolve, the record queries that took over from it, or
// their time limit.
DNSServiceErrorType processResolve(Handle& handle) {
    DNSServiceErrorType result = kDNSServiceErr_NoError;
    FromRecords* records = handle.records.get();
    for (DNSServiceRef part :
         {handle.inner, records ? records->srv : nullptr, records ? records->txt : nullptr})
        if (part && !handle.released && readable(avahi().refSockFD(part)))
            result = avahi().processResult(part);
    records = handle.records.get();
    if (records && handle.inner) {
        // Avahi's resolve has said its last word.
        DNSServiceRef ended = nullptr;
        {
            std::lock_guard<std::mutex> lock(registry().mutex);
            std::swap(ended, handle.inner);
        }
        avahi().refDeallocate(ended);
    }
    if (records && !records->done && readable(records->timer)) {
        stopWaiting(handle);
        if (!handle.released)
            handle.resolveReply(handle.ref(), 0, handle.interfaceIndex, records->error, "", "", 0,
                                0, nullptr, handle.context);
    }
    return result;
}

}  // namespace velmor_dnssd
