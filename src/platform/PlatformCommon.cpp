#include "Platform.h"

namespace vlm::platform {

namespace {
bool commonSubFolder(const char* leaf, std::string& folder) {
    std::string common;
    if (!commonAppDataFolder(common))
        return false;
    const char sep = pathSeparator();
    folder = common + sep + kMakerFolder + sep + "Velmor" + sep + leaf;
    return true;
}
}  // namespace

bool commonPluginFolder(std::string& folder) { return commonSubFolder("Plugins", folder); }

bool commonWebAppFolder(std::string& folder) { return commonSubFolder("webapp", folder); }

std::string userPluginFolder() {
    std::string base = userAppDataFolder();
    if (base.empty())
        return {};
    const char sep = pathSeparator();
    return base + sep + kMakerFolder + sep + kProductFolder + sep + "plugins";
}

}  // namespace vlm::platform
