#pragma once
// The engine's own configuration document, as the control requests read and change it.

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kelvane {

struct InterfaceFilter {
    std::string ip;
    std::string mask;
};

struct LoadedPlugin {
    std::string name;
    int major = 1;
    int minor = 0;
};

/// \brief Plug-ins, plug-in folders and interface filters; every method is thread-safe.
class EngineDocument {
public:
    EngineDocument(std::vector<std::string> pluginFolders, std::vector<InterfaceFilter> filters,
                   bool master, std::uint16_t port);

    /// The value at a path ("$", "$.Config.Plugins", "Config/Plugins") as compact JSON text;
    /// empty when the path names nothing.
    std::string get(const std::string& path) const;

    /// The filters in a JSON array of {"Ip","Mask"}; nothing when the body is not such an
    /// array of IPv4 texts.
    static std::optional<std::vector<InterfaceFilter>> parseInterfaceFilters(
        const std::string& body);
    /// Replaces the filters; the filters now in force as JSON text.
    std::string setInterfaceFilters(std::vector<InterfaceFilter> filters);

    /// Plug-in files found in the folders when the engine started: "<name>.so" or
    /// "<name>.dll", with an optional "_<major>.<minor>" version suffix on the name.
    static std::vector<LoadedPlugin> scanPlugins(const std::vector<std::string>& folders);

private:
    void rebuild();

    const std::vector<std::string> pluginFolders_;
    const std::vector<LoadedPlugin> plugins_;
    const bool master_;
    const std::uint16_t port_;
    mutable std::mutex mutex_;
    std::vector<InterfaceFilter> filters_;
    std::string whole_;  // "$" is asked for on every plug-in manager opening: kept serialised
};

/// True for a dotted-quad IPv4 text.
bool isIpv4Text(const std::string& text);

}  // namespace kelvane
