#include "Agent/BrowserListener.h"

#include <algorithm>
#include <cstring>

#include "Log.h"

namespace vlm {

namespace {
constexpr const char* kEngineServerPrefix = "_velmor";
constexpr const char* kMasterEntryPrefix = "master:";

bool isEngineServer(const char* name) {
    return name && std::strncmp(name, kEngineServerPrefix, std::strlen(kEngineServerPrefix)) == 0;
}
}  // namespace

Agent::BrowserListener::BrowserListener(Agent& owner, std::string localAddress,
                                        AddressList hostAddresses)
    : agent(owner),
      localAddress_(std::move(localAddress)),
      hostAddresses_(std::move(hostAddresses)) {}

// Read when the announcement arrives: the network may have come up, or the address changed,
// since the agent started.
bool Agent::BrowserListener::isOwnAddress(const std::string& address) const {
    if (address == localAddress_)
        return true;
    const std::vector<std::string> own =
        hostAddresses_ ? hostAddresses_() : std::vector<std::string>{};
    return std::find(own.begin(), own.end(), address) != own.end();
}

void Agent::BrowserListener::attach(const ServerRecord& server) {
    agent.attachedName = server.name;
    agent.attachedServer = server.endpoint;
    agent.attachedHost = server.host;
    agent.attachedMode = server.mode;
    VLM_LOG(6, "Attached to %s\n", server.endpoint.c_str());
    agent.notifyListeners([&](Agent::Listener& listener) { listener.onAttached(server.endpoint); });
}

void Agent::BrowserListener::add(std::uint32_t, const char* name, const char*, const char* host,
                                 const char* address, std::uint16_t port,
                                 const std::vector<std::string>& txt) {
    if (!isEngineServer(name) || !address)
        return;
    ServerRecord record{name, std::string(address) + ":" + std::to_string(port), host ? host : "",
                        kModeHybrid};
    std::lock_guard<std::mutex> lock(agent.mutex);
    for (const std::string& entry : txt) {
        if (entry.compare(0, std::strlen(kMasterEntryPrefix), kMasterEntryPrefix) == 0) {
            record.mode = kModeMaster;
            break;
        }
    }
    knownServers.emplace(record.name, record);

    if (!agent.attachedServer.empty()) {
        VLM_LOG(6,
                "Ignored VELMOR at %s because it is not the master and we are already attached\n",
                record.endpoint.c_str());
        return;
    }
    if (agent.mode == kModeMaster && !isOwnAddress(address)) {
        VLM_LOG(6, "Ignored VELMOR at %s because we are the master\n", record.endpoint.c_str());
        return;
    }
    attach(record);
}

void Agent::BrowserListener::remove(std::uint32_t, const char* name, const char*) {
    if (!isEngineServer(name))
        return;
    std::lock_guard<std::mutex> lock(agent.mutex);
    knownServers.erase(name);
    if (agent.attachedName != name)
        return;

    const std::string lost = agent.attachedServer;
    agent.attachedName.clear();
    agent.attachedServer.clear();
    agent.attachedHost.clear();
    agent.attachedMode = 0;

    // The first server left in name order is taken, then every master after it takes over.
    for (const auto& [serverName, server] : knownServers) {
        if (agent.attachedServer.empty() || server.mode == kModeMaster)
            attach(server);
    }
    if (agent.attachedServer.empty()) {
        VLM_LOG(6, "Detached from %s\n", lost.c_str());
        agent.notifyListeners([&](Agent::Listener& listener) { listener.onDetached(lost); });
    }
}

}  // namespace vlm
