#pragma once
// Which engine server the agent is attached to, decided from what DNS-SD reports.

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Agent/Agent.h"
#include "Agent/EndpointProbe.h"
#include "zeroconf/browser.h"

namespace vlm {

/// \brief Keeps the engine servers announced in the network and attaches the agent to one.
class Agent::BrowserListener : public zeroconf::browser_listener {
public:
    using AddressList = std::function<std::vector<std::string>()>;

    /// localAddress: this machine's probed address; hostAddresses: the addresses it holds at
    /// the moment of asking. A Master agent's own server carries one of them.
    BrowserListener(Agent& agent, std::string localAddress,
                    AddressList hostAddresses = currentIPv4Addresses);

    void add(std::uint32_t interface_index, const char* name, const char* type, const char* host,
             const char* address, std::uint16_t port, const std::vector<std::string>& txt) override;
    void remove(std::uint32_t interface_index, const char* name, const char* type) override;

    const std::string& localAddress() const { return localAddress_; }

private:
    struct ServerRecord {
        std::string name;
        std::string endpoint;
        std::string host;
        std::int32_t mode;
    };

    void attach(const ServerRecord& server);
    bool isOwnAddress(const std::string& address) const;

    Agent& agent;
    std::string localAddress_;
    AddressList hostAddresses_;
    // Ordered by the bytes of the service names, under the agent's mutex.
    std::map<std::string, ServerRecord> knownServers;
};

}  // namespace vlm
