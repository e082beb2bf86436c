#include "AppConfig.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Log.h"
#include "PluginInventory.h"
#include "platform/Platform.h"
#include "rapidjson/error/en.h"
#include "rapidjson/filereadstream.h"
#include "rapidjson/filewritestream.h"
#include "rapidjson/writer.h"

namespace vlm {

namespace {
constexpr std::size_t kReadBufferSize = 65536;
constexpr int kMaxDecimalPlaces = 17;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;
}  // namespace

AppConfig& AppConfig::instance() {
    static AppConfig config;
    return config;
}

bool isDirectory(const std::string& path) {
    return platform::isDirectory(path);
}

json::DocumentPtr readJsonFile(const std::string& path, bool* parsed) {
    File file(std::fopen(path.c_str(), "rb"));
    if (!file)
        return nullptr;
    std::vector<char> buffer(kReadBufferSize);
    rapidjson::FileReadStream stream(file.get(), buffer.data(), buffer.size());
    auto document = std::make_shared<json::Document>();
    bool ok = json::parseStream(*document, stream);
    if (parsed)
        *parsed = ok;
    return document;
}

void AppConfig::buildFolders() {
    separator = platform::pathSeparator();
    std::string base = platform::userAppDataFolder();
    if (base.empty())
        VLM_LOG(3, "No per-user folder: neither APPDATA nor HOME is set\n");
    const std::string maker = base + separator + platform::kMakerFolder;
    platform::makeDirectory(maker);

    appFolder = maker + separator + platform::kProductFolder;
    pluginsFolder = appFolder + separator + "plugins";
    storageFolder = appFolder + separator + "storage";
    picturesFolder = appFolder + separator + "pictures";
    logsFolder = appFolder + separator + "logs";
    connectionsFolder = appFolder + separator + "connections";
    debugFolder = appFolder + separator + "debug";
    for (const std::string& folder : paths)
        platform::makeDirectory(folder);
}

void AppConfig::load(const char* path) {
    buildFolders();
    configFilePath = path ? std::string(path) : appFolder + separator + "config.json";

    bool parsed = true;
    document = readJsonFile(configFilePath, &parsed);
    if (!document) {
        document = std::make_shared<json::Document>();
        document->SetObject();
    } else if (!parsed || !document->IsObject()) {
        keepFileAside_ = true;
        VLM_LOG(4, "%s does not hold a JSON object; the defaults apply\n", configFilePath.c_str());
    }

    seedPluginTable(*this);

    std::string folder;
    if (platform::commonPluginFolder(folder))
        pluginFolders.emplace_back(folder);
    if (platform::commonWebAppFolder(folder))
        webAppFolder = folder;
    if (!pluginsFolder.empty())
        pluginFolders.emplace_back(pluginsFolder);
}

bool AppConfig::save() {
    if (!document)
        return false;
    auto fail = [this](const std::string& path) {
        saveError_ = std::strerror(errno);
        ++failedSaves_;
        VLM_LOG(3, "Cannot write %s: %s\n", path.c_str(), saveError_.c_str());
        return false;
    };
    // A file the user wrote by hand that did not parse is kept, never silently replaced: while
    // it cannot be moved aside, nothing is written over it.
    if (keepFileAside_) {
        const std::string kept = configFilePath + ".invalid";
        if (std::rename(configFilePath.c_str(), kept.c_str()) == 0)
            VLM_LOG(4, "The unreadable configuration was kept as %s\n", kept.c_str());
        else if (errno != ENOENT)
            return fail(kept);
        keepFileAside_ = false;
    }
    const std::string temporary = configFilePath + ".tmp";
    File file(std::fopen(temporary.c_str(), "wb"));
    if (!file)
        return fail(temporary);
    char buffer[kReadBufferSize];
    rapidjson::FileWriteStream stream(file.get(), buffer, sizeof buffer);
    // The writer's default level stack is 32 levels of 16 bytes: 512 bytes to start with.
    rapidjson::Writer<rapidjson::FileWriteStream> writer(stream);
    writer.SetMaxDecimalPlaces(kMaxDecimalPlaces);
    document->Accept(writer);
    stream.Flush();
    bool written = std::fflush(file.get()) == 0 && !std::ferror(file.get());
    written = std::fclose(file.release()) == 0 && written;
    if (!written || std::rename(temporary.c_str(), configFilePath.c_str()) != 0) {
        const int error = errno;
        std::remove(temporary.c_str());
        errno = error;
        return fail(configFilePath);
    }
    saveError_.clear();
    return true;
}

bool AppConfig::change(const std::function<void(json::Document&)>& edit) {
    if (!document)
        return false;
    auto before = std::make_shared<json::Document>();
    before->max_length = document->max_length;
    json::copyValue(*before, *document, &before->GetAllocator(), document->max_length);
    edit(*document);
    if (save())
        return true;
    document = std::move(before);
    return false;
}

}  // namespace vlm
