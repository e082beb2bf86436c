#include "Announcement.h"

#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "Log.h"
#include "zeroconf/client.h"

namespace kelvane {

namespace {

constexpr std::size_t kMaxInstanceName = 63;

std::mutex announcementMutex;
boost::shared_ptr<zeroconf::client> client;
boost::shared_ptr<zeroconf::service> registration;

std::string hostName() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0)
        return {};
    return name;
}

void logOutcome(const std::string& name, std::uint16_t port, int state) {
    switch (state) {
        case zeroconf::service::registered:
            VLM_LOG(6, "Engine: DNS-SD registered \"%s\" on port %u\n", name.c_str(),
                    static_cast<unsigned>(port));
            break;
        case zeroconf::service::name_collision:
            VLM_LOG(4, "Engine: DNS-SD name conflict: \"%s\" is taken; not announced\n",
                    name.c_str());
            break;
        default:
            // The DNS-SD daemon went away; the registration comes back with it.
            VLM_LOG(4,
                    "Engine: DNS-SD registration of \"%s\" lost; announced again once the DNS-SD "
                    "daemon answers\n",
                    name.c_str());
            break;
    }
}

void withdrawLocked() {
    // The service first: it deregisters from the client, whose poll thread then ends.
    registration.reset();
    client.reset();
}

void withdrawAtExit() {
    std::lock_guard<std::mutex> lock(announcementMutex);
    withdrawLocked();
}

}  // namespace

std::string instanceName(const std::string& hostName) {
    std::string name = "_velmor_" + hostName.substr(0, hostName.find('.'));
    if (name.size() > kMaxInstanceName) {
        std::size_t end = kMaxInstanceName;
        // Never leave half a UTF-8 character at the end.
        while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80)
            --end;
        name.resize(end);
    }
    return name;
}

void announce(std::uint16_t port, bool master) {
    std::lock_guard<std::mutex> lock(announcementMutex);
    // Ends the poll thread before the process unloads what it runs on, should the engine
    // never be stopped.
    static const bool exitHook = std::atexit(&withdrawAtExit) == 0;
    (void)exitHook;
    withdrawLocked();

    const std::string name = instanceName(hostName());
    std::vector<std::string> txt;
    if (master)
        txt.push_back("master:1");
    client = zeroconf::client::create(-1);
    registration =
        client->create_service(name, "_http._tcp", port, {"_ravenna"}, txt,
                               [name, port](int state) { logOutcome(name, port, state); });
    if (!registration) {
        VLM_LOG(4, "Engine: DNS-SD unavailable; \"%s\" not announced\n", name.c_str());
        client.reset();
    }
}

void withdraw() {
    std::lock_guard<std::mutex> lock(announcementMutex);
    withdrawLocked();
}

}  // namespace kelvane
