#include "AppConfig.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Log.h"
#include "PluginInventory.h"
#include "platform/Platform.h"
#include "rapidjson/error/en.h"
#include "rapidjson/filereadstream.h"
#include "rapidjson/stringbuffer.h"
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
    File file(platform::openRegularFile(path));
    if (!file)
        return nullptr;
    std::vector<char> buffer(kReadBufferSize);
    rapidjson::FileReadStream stream(file.get(), buffer.data(), buffer.size());
    auto document = std::make_shared<json::Document>();
    bool ok = json::parseStream(*document, stream);
    // The parser stops at a NUL byte as at the end: a file with more after one is no JSON text
    // either, and must be kept aside rather than written over.
    if (ok && (std::fseek(file.get(), 0, SEEK_END) != 0 ||
               std::ftell(file.get()) != static_cast<long>(stream.Tell()))) {
        ok = false;
        document->SetNull();
    }
    if (parsed)
        *parsed = ok;
    return document;
}

void AppConfig::buildFolders() {
    separator = platform::pathSeparator();
    std::string base = platform::userAppDataFolder();
    if (base.empty())
        VLM_LOG(3, "No per-user folder: neither APPDATA nor HOME is set\n");
    platform::makeBaseFolder(base);
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
        // What could not be read is never written over: it is kept aside first.
        if (const int kind = platform::fileKind(configFilePath); kind != 0) {
            keepFileAside_ = true;
            VLM_LOG(4, "%s cannot be read (%s); the defaults apply\n", configFilePath.c_str(),
                    kind == 1 ? std::strerror(errno) : "not a regular file");
        }
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
    auto fail = [this](const std::string& path, const std::string& reason) {
        saveError_ = reason;
        ++failedSaves_;
        VLM_LOG(3, "Cannot write %s: %s\n", path.c_str(), saveError_.c_str());
        return false;
    };
    // A folder or a FIFO in the file's place is neither copied nor replaced.
    if (platform::fileKind(configFilePath) == 2)
        return fail(configFilePath, "not a regular file");
    // A file the user wrote by hand that did not parse is kept, never silently replaced: while
    // no copy of it can be made, nothing is written over it. Copies never replace earlier ones.
    if (keepFileAside_) {
        std::error_code error;
        std::string kept;
        for (unsigned n = 0; n < 1000; ++n) {
            kept = configFilePath + ".invalid" + (n ? "." + std::to_string(n) : std::string());
            error.clear();
            if (std::filesystem::copy_file(configFilePath, kept, error) ||
                error != std::errc::file_exists)
                break;
        }
        if (error && error != std::errc::no_such_file_or_directory)
            return fail(kept, error.message());
        if (!error)
            VLM_LOG(4, "The unreadable configuration was kept as %s\n", kept.c_str());
        keepFileAside_ = false;
    }
    rapidjson::StringBuffer text;
    // The writer's default level stack is 32 levels of 16 bytes: 512 bytes to start with.
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    writer.SetMaxDecimalPlaces(kMaxDecimalPlaces);
    document->Accept(writer);
    if (!platform::replaceFile(configFilePath, std::string(text.GetString(), text.GetSize())))
        return fail(configFilePath, std::strerror(errno));
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
