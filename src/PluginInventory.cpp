#include "PluginInventory.h"

#include <cstring>
#include <string>

#include "AppConfig.h"

namespace vlm {

namespace {
struct BuiltInPlugin {
    const char* fileName;
    const char* description;
    bool enabled;
};

// The description of proxy_native has never had its closing parenthesis; users know it so.
constexpr BuiltInPlugin kBuiltInPlugins[] = {
    {"disco_bonjour", "Default Device discovery via Bonjour", true},
    {"disco_SAP", "SAP Streams discovery (Dante & AES67)", false},
    {"proxy_tessel", "Tessel based devices proxy (Tessel converters & partner interfaces)", true},
    {"proxy_native",
     "Native generic proxy (converters, interfaces, cards, virtual devices and more", true},
    {"proxy_o_corestream", "Legacy proxy for CoreStream", true},
    {"proxy_halden", "Halden based devices proxy", true},
    {"routeline", "Routeline devices proxy", false},
    {"proxy_wavenet", "Wavenet based devices proxy", false},
    {"linkbus_rif", "Linkbus proxy", false},
    {"proxy_file", "Debugging purpose proxy", false},
};

}  // namespace

void addPluginEntry(json::Value& array, const char* fileName, const char* description, bool enabled,
                    json::Allocator& allocator) {
    const std::string name = std::string(fileName) + ".dll";
    // The first member added gives the object its table of 16 members.
    json::Value entry(rapidjson::kObjectType);
    json::Value nameValue;
    json::setString(nameValue, name.c_str(), static_cast<rapidjson::SizeType>(name.size()), true,
                    &allocator);
    json::Value descrValue;
    json::setString(descrValue, description,
                    static_cast<rapidjson::SizeType>(std::strlen(description)), true, &allocator);
    entry.AddMember("name", nameValue, allocator);
    entry.AddMember("descr", descrValue, allocator);
    entry.AddMember("enabled", json::Value(enabled), allocator);
    array.PushBack(entry, allocator);
}

void seedPluginTable(AppConfig& config) {
    json::Document& document = *config.document;
    if (json::hasMember(document, "plugins"))
        return;
    // A root that is not an object has already been reported by hasMember; nothing to add to.
    if (!document.IsObject())
        return;
    json::Allocator& allocator = document.GetAllocator();
    json::Value plugins(rapidjson::kArrayType);
    for (const BuiltInPlugin& plugin : kBuiltInPlugins)
        addPluginEntry(plugins, plugin.fileName, plugin.description, plugin.enabled, allocator);
    document.AddMember("plugins", plugins, allocator);
}

json::Value* findPluginEntry(AppConfig& config, const char* fileName) {
    json::Document& document = *config.document;
    if (!json::hasMember(document, "plugins"))
        return nullptr;
    json::Value& plugins = json::checkedMember(document, "plugins");
    if (!plugins.IsArray() || plugins.Empty())
        return nullptr;
    const std::size_t length = std::strlen(fileName);
    for (json::Value& entry : plugins.GetArray()) {
        const json::Value& name = json::checkedMember(entry, "name");
        if (name.IsString() && name.GetStringLength() == length &&
            std::memcmp(name.GetString(), fileName, length) == 0)
            return &entry;
    }
    return nullptr;
}

}  // namespace vlm
