#pragma once
// The plug-in catalogue and the server's plug-in list, joined into one entry per plug-in with
// its installed and outdated flags.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "json/Json.h"

namespace vlm {

/// \brief One usable record of the catalogue's "Images": a picture of a device.
struct ImageRecord {
    std::string name;
    std::string vendor;
    std::string product;
    std::string pngUrl;
    std::string icnsUrl;
};

/// \brief One plug-in, as the catalogue lists it or as the server has loaded it.
struct CatalogueEntry {
    std::string name;
    std::string url;
    std::string windowsFile;
    bool hasWindowsFile = false;
    std::string description;
    std::string contact;
    int stability = -1;
    std::int32_t major = 0;
    std::int32_t minor = 0;
    std::vector<ImageRecord> images;
    bool installed = false;
    bool outdated = false;
};

/// \brief A plug-in version the server reports as loaded.
struct LocalVersion {
    std::int32_t major = 0;
    std::int32_t minor = 0;
};

using CatalogueEntries = std::map<std::string, CatalogueEntry>;
using LocalVersions = std::map<std::string, LocalVersion>;

constexpr const char* kLocalUnknownPlugin = "local unknown plugin";

/// 0 "experimental", 1 "beta", 2 "release", -1 anything else (case matters).
int stabilityOf(const std::string& certification);
const char* stabilityWord(int stability);

/// True for a bare file name: no separator, no "..", no drive or root prefix. Only such names
/// are written into the plug-in and picture folders.
bool isPlainFileName(const std::string& name);

/// The picture's file name without its ending; empty when the record cannot name a safe one.
std::string pictureName(const ImageRecord& record);

/// Reads "Config"/"Plugins" into versions; folders gets "Config"/"PluginDirectory" when that
/// has elements.
void readServerConfig(const json::Document& document, LocalVersions& versions,
                      std::optional<std::vector<std::string>>& folders);

/// Parses the catalogue text into entries. False (and a debug message) when it is not JSON.
bool readCatalogue(const std::string& text, CatalogueEntries& entries);

/// Adds the "local unknown plugin" entries and sets installed and outdated on every entry.
void applyStatus(CatalogueEntries& entries, const LocalVersions& versions);

/// What a row shows in its status cell, in order of precedence.
enum class RowStatus { Outdated, UpToDate, RestartNeeded, Download, NotAvailable };
RowStatus rowStatus(const CatalogueEntry& entry, bool downloaded);

}  // namespace vlm
