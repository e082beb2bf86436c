#include "Kelvane.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "Announcement.h"
#include "EngineServer.h"
#include "Log.h"
#include "platform/Platform.h"

namespace {

constexpr std::uint16_t kDefaultPort = 8080;
constexpr std::uint32_t kMasterFlag = 2;

std::mutex engineMutex;
std::vector<kelvane::InterfaceFilter> pendingFilters;
std::unique_ptr<kelvane::EngineServer> engine;

std::uint16_t configuredPort() {
    const char* text = std::getenv("VELMOR_ENGINE_PORT");
    if (!text || !*text)
        return kDefaultPort;
    char* end = nullptr;
    errno = 0;
    unsigned long value = std::strtoul(text, &end, 10);
    if (errno || *end || value > 65535 || *text == '-') {
        VLM_LOG(4, "VELMOR_ENGINE_PORT \"%s\" is not a port; %u applies\n", text,
                static_cast<unsigned>(kDefaultPort));
        return kDefaultPort;
    }
    return static_cast<std::uint16_t>(value);
}

std::vector<std::string> pluginFolders() {
    std::vector<std::string> folders;
    std::string folder;
    if (vlm::platform::commonPluginFolder(folder))
        folders.push_back(folder);
    folder = vlm::platform::userPluginFolder();
    if (!folder.empty())
        folders.push_back(folder);
    return folders;
}

}  // namespace

extern "C" {

int KLV_AddInterfaceFilter(const char* address, const char* netmask) {
    if (!address || !netmask || !kelvane::isIpv4Text(address) || !kelvane::isIpv4Text(netmask)) {
        VLM_LOG(4, "Engine: interface filter %s/%s refused\n", address ? address : "(null)",
                netmask ? netmask : "(null)");
        return -1;
    }
    std::lock_guard<std::mutex> lock(engineMutex);
    // A caller retrying a failed start adds its filters again: keep each pair once.
    auto same = [&](const kelvane::InterfaceFilter& f) {
        return f.ip == address && f.mask == netmask;
    };
    if (std::none_of(pendingFilters.begin(), pendingFilters.end(), same))
        pendingFilters.push_back({address, netmask});
    return 0;
}

int32_t KLV_Initialize(int32_t, int32_t, uint32_t flags) {
    std::lock_guard<std::mutex> lock(engineMutex);
    if (engine) {
        VLM_LOG(4, "Engine: already running\n");
        return 1;
    }
    std::string webApp;
    vlm::platform::commonWebAppFolder(webApp);
    const bool master = (flags & kMasterFlag) != 0;
    auto server = std::make_unique<kelvane::EngineServer>(pluginFolders(), webApp, master);
    std::string error;
    if (!server->start(pendingFilters, configuredPort(), error)) {
        VLM_LOG(3, "Engine cannot start: %s\n", error.c_str());
        return -1;
    }
    kelvane::announce(server->port(), master);
    engine = std::move(server);
    return 0;
}

int KLV_Uninitialize(void) {
    std::lock_guard<std::mutex> lock(engineMutex);
    if (engine) {
        kelvane::withdraw();
        engine->stop();
        engine.reset();
    }
    pendingFilters.clear();
    return 0;
}
}
