#pragma once
// The engine's web server: control requests for the agent and the web application for
// browsers, on its own threads.

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "EngineDocument.h"
#include "WebAppFiles.h"

namespace kelvane {

struct ServerLimits {
    std::uint32_t headerBytes = 8 * 1024;
    std::uint64_t bodyBytes = 64 * 1024;
    // A connection that has not finished its request by then is dropped.
    std::chrono::milliseconds idle = std::chrono::seconds(30);
};

/// \brief Listens on every address given (all interfaces when none) on one port.
class EngineServer {
public:
    EngineServer(std::vector<std::string> pluginFolders, std::string webAppFolder, bool master,
                 ServerLimits limits = {});
    ~EngineServer();
    EngineServer(const EngineServer&) = delete;
    EngineServer& operator=(const EngineServer&) = delete;

    /// Binds and starts serving; false with a reason when no address could be bound or the
    /// port is taken. Port 0 picks a free one, shared by every address.
    bool start(const std::vector<InterfaceFilter>& filters, std::uint16_t port, std::string& error);
    void stop();

    std::uint16_t port() const { return port_; }

private:
    struct State;
    std::unique_ptr<State> state_;
    std::vector<std::string> pluginFolders_;
    std::string webAppFolder_;
    bool master_;
    ServerLimits limits_;
    std::uint16_t port_ = 0;
    std::vector<std::thread> threads_;
};

}  // namespace kelvane
