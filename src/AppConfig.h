#pragma once
// Where the program keeps its files, and the per-user configuration document "config.json".

#include <array>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "json/Json.h"

namespace vlm {

/// \brief The process-wide configuration: folder tree, "config.json" and plug-in folders.
class AppConfig {
public:
    static AppConfig& instance();

    /// Builds the folder tree, reads the configuration (path, or the per-user file when null)
    /// and sets the plug-in and web-application folders.
    void load(const char* path = nullptr);
    /// Writes the document back, compact, replacing the file only once the new text is complete.
    /// False when the file could not be written; saveError() then says why.
    bool save();

    /// Edits the document and saves it. When the file cannot be written the document is put
    /// back as it was, so that what the program shows is what the file holds. True when saved.
    bool change(const std::function<void(json::Document&)>& edit);

    /// Why the last save failed ("Permission denied"...); empty after a successful one.
    const std::string& saveError() const { return saveError_; }
    /// Saves that failed so far: a caller compares two readings to learn whether its own did.
    unsigned failedSaves() const { return failedSaves_; }

    std::string configFilePath;
    json::DocumentPtr document;
    std::vector<std::filesystem::path> pluginFolders;

    // The nine folder slots, in the order they are created.
    std::array<std::string, 9> paths;
    std::string& appFolder = paths[0];
    std::string& pluginsFolder = paths[1];
    std::string& storageFolder = paths[2];
    std::string& picturesFolder = paths[3];
    std::string& logsFolder = paths[4];
    std::string& webAppFolder = paths[5];
    std::string& spareFolder = paths[6];
    std::string& connectionsFolder = paths[7];
    std::string& debugFolder = paths[8];

    char separator = '/';

    AppConfig() = default;
    AppConfig(const AppConfig&) = delete;
    AppConfig& operator=(const AppConfig&) = delete;

private:
    void buildFolders();
    // Set when the file on disk holds no JSON object: it is kept aside before the first save.
    bool keepFileAside_ = false;
    std::string saveError_;
    unsigned failedSaves_ = 0;
};

/// Reads a JSON file into a new document; null when the file cannot be opened. A document
/// whose text does not parse holds null.
json::DocumentPtr readJsonFile(const std::string& path, bool* parsed = nullptr);

bool isDirectory(const std::string& path);

}  // namespace vlm
