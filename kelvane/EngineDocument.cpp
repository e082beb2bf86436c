#include "EngineDocument.h"

#include <arpa/inet.h>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/pointer.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <algorithm>
#include <filesystem>

namespace kelvane {

namespace {

constexpr std::size_t kMaxFilters = 64;

std::string serialise(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
}

rapidjson::Value text(const std::string& value, rapidjson::Document::AllocatorType& allocator) {
    return rapidjson::Value(value.c_str(), static_cast<rapidjson::SizeType>(value.size()),
                            allocator);
}

/// "$.Config.Plugins" and "Config/Plugins" both become "/Config/Plugins".
std::optional<std::string> pointerFor(const std::string& path) {
    std::string rest = path;
    if (rest == "$" || rest.empty())
        return std::string();
    if (rest.compare(0, 2, "$.") == 0) {
        rest = rest.substr(2);
        std::replace(rest.begin(), rest.end(), '.', '/');
    }
    if (rest.empty() || rest.front() != '/')
        rest.insert(rest.begin(), '/');
    return rest;
}

bool parseVersion(const std::string& text, int& major, int& minor) {
    auto dot = text.find('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 >= text.size() || text.size() > 9)
        return false;
    if (!std::all_of(text.begin(), text.begin() + dot, ::isdigit) ||
        !std::all_of(text.begin() + dot + 1, text.end(), ::isdigit))
        return false;
    major = std::stoi(text.substr(0, dot));
    minor = std::stoi(text.substr(dot + 1));
    return true;
}

}  // namespace

bool isIpv4Text(const std::string& text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

EngineDocument::EngineDocument(std::vector<std::string> pluginFolders,
                               std::vector<InterfaceFilter> filters, bool master,
                               std::uint16_t port)
    : pluginFolders_(std::move(pluginFolders)),
      plugins_(scanPlugins(pluginFolders_)),
      master_(master),
      port_(port),
      filters_(std::move(filters)) {
    rebuild();
}

std::vector<LoadedPlugin> EngineDocument::scanPlugins(const std::vector<std::string>& folders) {
    std::vector<LoadedPlugin> plugins;
    for (const auto& folder : folders) {
        std::error_code error;
        for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
             it.increment(error)) {
            const auto& file = it->path();
            std::error_code typeError;
            if (!it->is_regular_file(typeError))
                continue;
            auto extension = file.extension().string();
            if (extension != ".so" && extension != ".dll")
                continue;
            LoadedPlugin plugin;
            plugin.name = file.stem().string();
            auto underscore = plugin.name.rfind('_');
            if (underscore != std::string::npos &&
                parseVersion(plugin.name.substr(underscore + 1), plugin.major, plugin.minor))
                plugin.name.erase(underscore);
            // The first folder in the search order wins, as when the engine loads them.
            if (!plugin.name.empty() &&
                std::none_of(plugins.begin(), plugins.end(),
                             [&](const LoadedPlugin& p) { return p.name == plugin.name; }))
                plugins.push_back(plugin);
        }
    }
    std::sort(plugins.begin(), plugins.end(),
              [](const LoadedPlugin& a, const LoadedPlugin& b) { return a.name < b.name; });
    return plugins;
}

void EngineDocument::rebuild() {
    rapidjson::Document document(rapidjson::kObjectType);
    auto& allocator = document.GetAllocator();

    rapidjson::Value plugins(rapidjson::kArrayType);
    for (const auto& plugin : plugins_) {
        rapidjson::Value entry(rapidjson::kObjectType);
        entry.AddMember("Name", text(plugin.name, allocator), allocator);
        entry.AddMember("Major", plugin.major, allocator);
        entry.AddMember("Minor", plugin.minor, allocator);
        plugins.PushBack(entry, allocator);
    }
    rapidjson::Value folders(rapidjson::kArrayType);
    for (const auto& folder : pluginFolders_)
        folders.PushBack(text(folder, allocator), allocator);
    rapidjson::Value config(rapidjson::kObjectType);
    config.AddMember("Plugins", plugins, allocator);
    config.AddMember("PluginDirectory", folders, allocator);

    rapidjson::Value filters(rapidjson::kArrayType);
    for (const auto& filter : filters_) {
        rapidjson::Value entry(rapidjson::kObjectType);
        entry.AddMember("Ip", text(filter.ip, allocator), allocator);
        entry.AddMember("Mask", text(filter.mask, allocator), allocator);
        filters.PushBack(entry, allocator);
    }
    rapidjson::Value engine(rapidjson::kObjectType);
    engine.AddMember("Master", master_, allocator);
    engine.AddMember("Port", port_, allocator);
    engine.AddMember("InterfaceFilters", filters, allocator);

    document.AddMember("Config", config, allocator);
    document.AddMember("Engine", engine, allocator);
    whole_ = serialise(document);
}

std::string EngineDocument::get(const std::string& path) const {
    auto pointerText = pointerFor(path);
    std::lock_guard<std::mutex> lock(mutex_);
    if (pointerText && pointerText->empty())
        return whole_;
    if (!pointerText)
        return {};
    rapidjson::Pointer pointer(pointerText->c_str(), pointerText->size());
    if (!pointer.IsValid())
        return {};
    rapidjson::Document document;
    document.Parse(whole_.c_str(), whole_.size());
    const rapidjson::Value* value = pointer.Get(document);
    return value ? serialise(*value) : std::string();
}

std::optional<std::vector<InterfaceFilter>> EngineDocument::parseInterfaceFilters(
    const std::string& body) {
    rapidjson::Document document;
    // Bodies come from the network: a deeply nested one must not exhaust the stack.
    document.Parse<rapidjson::kParseIterativeFlag>(body.c_str(), body.size());
    if (document.HasParseError() || !document.IsArray() || document.Size() > kMaxFilters)
        return std::nullopt;
    std::vector<InterfaceFilter> filters;
    for (const auto& element : document.GetArray()) {
        if (!element.IsObject())
            return std::nullopt;
        auto ip = element.FindMember("Ip");
        auto mask = element.FindMember("Mask");
        if (ip == element.MemberEnd() || mask == element.MemberEnd() || !ip->value.IsString() ||
            !mask->value.IsString())
            return std::nullopt;
        InterfaceFilter filter{ip->value.GetString(), mask->value.GetString()};
        if (!isIpv4Text(filter.ip) || !isIpv4Text(filter.mask))
            return std::nullopt;
        filters.push_back(std::move(filter));
    }
    return filters;
}

std::string EngineDocument::setInterfaceFilters(std::vector<InterfaceFilter> filters) {
    std::lock_guard<std::mutex> lock(mutex_);
    filters_ = std::move(filters);
    rebuild();
    rapidjson::Document answer;
    answer.Parse(whole_.c_str(), whole_.size());
    return serialise(answer["Engine"]["InterfaceFilters"]);
}

}  // namespace kelvane
