#include "plugins/Catalogue.h"

#include <QDebug>
#include <QString>
#include <cstdio>

#include "Log.h"
#include "rapidjson/error/en.h"
#include "rapidjson/memorystream.h"
#include "rapidjson/reader.h"

namespace vlm {

namespace {

/// Validates without building anything, to learn the parser's error and its offset; nesting is
/// capped as the document parser caps it.
class DepthCheck : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, DepthCheck> {
public:
    bool Default() { return true; }
    bool StartObject() { return ++depth_ <= json::detail::kMaxNesting; }
    bool EndObject(rapidjson::SizeType) { return leave(); }
    bool StartArray() { return ++depth_ <= json::detail::kMaxNesting; }
    bool EndArray(rapidjson::SizeType) { return leave(); }

private:
    bool leave() {
        --depth_;
        return true;
    }
    unsigned depth_ = 0;
};

std::string textMember(const json::Value& object, const char* name) {
    const json::Value& value = json::checkedMember(object, name);
    if (value.IsString())
        return std::string(value.GetString(), value.GetStringLength());
    if (!value.IsNull())
        VLM_LOG(4, "Plug-in catalogue: \"%s\" is not a string\n", name);
    return {};
}

std::int32_t intMember(const json::Value& object, const char* name) {
    const json::Value& value = json::checkedMember(object, name);
    if (value.IsInt())
        return value.GetInt();
    if (!value.IsNull())
        VLM_LOG(4, "Plug-in catalogue: \"%s\" is not an integer\n", name);
    return 0;
}

/// The elements of an array member, or none (logged) when it is something else.
const json::Value* arrayMember(const json::Value& object, const char* name) {
    const json::Value& value = json::checkedMember(object, name);
    if (value.IsArray())
        return &value;
    if (!value.IsNull())
        VLM_LOG(4, "Plug-in catalogue: \"%s\" is not an array\n", name);
    return nullptr;
}

void readPlugin(const json::Value& element, CatalogueEntries& entries) {
    CatalogueEntry entry;
    entry.name = textMember(element, "Name");
    entry.url = textMember(element, "URL");
    entry.description = textMember(element, "Description");
    entry.contact = textMember(element, "Contact");
    // Optional: absent means no file for this system, so no message.
    if (element.HasMember("Windows")) {
        entry.windowsFile = textMember(element, "Windows");
        entry.hasWindowsFile = true;
    }
    entry.stability = stabilityOf(textMember(element, "Certification"));
    entry.major = intMember(element, "Major");
    entry.minor = intMember(element, "Minor");

    const std::string line =
        "<<<<PLUGIN>>>>> " + entry.name + " - " + entry.url + " - " + entry.description + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);

    // The catalogue must never make the agent write outside the plug-in folders.
    if (entry.hasWindowsFile && !isPlainFileName(entry.windowsFile)) {
        VLM_LOG(3, "Plug-in %s: refused file name \"%s\"\n", entry.name.c_str(),
                entry.windowsFile.c_str());
        entry.windowsFile.clear();
        entry.hasWindowsFile = false;
    }
    entries[entry.name] = std::move(entry);
}

void readImage(const json::Value& element, CatalogueEntries& entries) {
    ImageRecord record;
    record.name = textMember(element, "Name");
    const std::string proxy = textMember(element, "Proxy");
    if (record.name != proxy)
        return;
    record.vendor = textMember(element, "Vendor");
    record.product = textMember(element, "Product");
    record.pngUrl = textMember(element, "PNG_URL");
    record.icnsUrl = textMember(element, "ICNS_URL");
    auto owner = entries.find(proxy);
    if (owner == entries.end()) {
        VLM_LOG(5, "Plug-in catalogue: picture for unknown proxy %s\n", proxy.c_str());
        return;
    }
    owner->second.images.push_back(std::move(record));
}

}  // namespace

int stabilityOf(const std::string& certification) {
    if (certification == "experimental")
        return 0;
    if (certification == "beta")
        return 1;
    if (certification == "release")
        return 2;
    return -1;
}

const char* stabilityWord(int stability) {
    switch (stability) {
        case 0:
            return "experimental";
        case 1:
            return "beta";
        case 2:
            return "release";
        default:
            return "unknown";
    }
}

bool isPlainFileName(const std::string& name) {
    // One path component that names a file in the folder itself: "a..b.dll" is such a name,
    // "..", "sub/x.dll" or "/x.dll" are not.
    if (name.empty() || name == "." || name == "..")
        return false;
    if (name.find_first_of("/\\") != std::string::npos)
        return false;
    // "C:evil.dll" is relative to the drive's current folder on Windows.
    if (name.find(':') != std::string::npos)
        return false;
    return name.find('\0') == std::string::npos;
}

std::string pictureName(const ImageRecord& record) {
    std::string name = record.vendor + "_" + record.product;
    if (!isPlainFileName(name)) {
        VLM_LOG(3, "Picture of %s: refused file name \"%s\"\n", record.name.c_str(), name.c_str());
        return {};
    }
    return name;
}

void readServerConfig(const json::Document& document, LocalVersions& versions,
                      std::optional<std::vector<std::string>>& folders) {
    auto* root = const_cast<json::Document*>(&document);
    if (const json::Value* plugins = json::findPath(root, {"Config", "Plugins"});
        plugins && plugins->IsArray()) {
        for (const json::Value& element : plugins->GetArray()) {
            if (!element.IsObject())
                continue;
            LocalVersion version{intMember(element, "Major"), intMember(element, "Minor")};
            versions[textMember(element, "Name")] = version;
        }
    }
    const json::Value* directories = json::findPath(root, {"Config", "PluginDirectory"});
    if (directories && directories->IsArray() && !directories->Empty()) {
        std::vector<std::string> list;
        for (const json::Value& folder : directories->GetArray())
            if (folder.IsString())
                list.emplace_back(folder.GetString(), folder.GetStringLength());
        folders = std::move(list);
    }
}

bool readCatalogue(const std::string& body, CatalogueEntries& entries) {
    const QByteArray text = QString::fromUtf8(body.data(), static_cast<int>(body.size())).toUtf8();

    rapidjson::MemoryStream check(text.constData(), static_cast<std::size_t>(text.size()));
    DepthCheck handler;
    rapidjson::Reader reader;
    rapidjson::ParseResult result = reader.Parse<rapidjson::kParseIterativeFlag>(check, handler);
    // The reader stops at a NUL byte as at the end: what follows one is not JSON either.
    if (result && check.Tell() < static_cast<std::size_t>(text.size()))
        result.Set(rapidjson::kParseErrorDocumentRootNotSingular, check.Tell());
    json::Document document;
    rapidjson::MemoryStream stream(text.constData(), static_cast<std::size_t>(text.size()));
    if (result && !json::parseStream(document, stream))
        result.Set(rapidjson::kParseErrorTermination, stream.Tell());
    if (!result) {
        qDebug().noquote() << QString("Unable to parse Json document: %0 -> corrupted (%1)\n")
                                  .arg(rapidjson::GetParseError_En(result.Code()))
                                  .arg(result.Offset());
        return false;
    }

    if (!document.IsObject()) {
        VLM_LOG(3, "Plug-in catalogue: the document is not an object\n");
        return true;
    }
    if (const json::Value* plugins = arrayMember(document, "Plugins")) {
        for (const json::Value& element : plugins->GetArray()) {
            if (!element.IsObject()) {
                json::hasMember(element, "Name");  // prints the "not an object" message
                continue;
            }
            readPlugin(element, entries);
        }
    }
    if (const json::Value* images = arrayMember(document, "Images")) {
        for (const json::Value& element : images->GetArray()) {
            if (!element.IsObject()) {
                json::hasMember(element, "Name");  // prints the "not an object" message
                continue;
            }
            readImage(element, entries);
        }
    }
    return true;
}

void applyStatus(CatalogueEntries& entries, const LocalVersions& versions) {
    for (const auto& [name, version] : versions) {
        if (entries.count(name))
            continue;
        CatalogueEntry entry;
        entry.name = name;
        entry.description = kLocalUnknownPlugin;
        entry.major = version.major;
        entry.minor = version.minor;
        entries.emplace(name, std::move(entry));
    }
    for (auto& [name, entry] : entries) {
        auto local = versions.find(name);
        entry.installed = local != versions.end();
        entry.outdated = false;
        if (!entry.installed)
            continue;
        const LocalVersion& l = local->second;
        // A newer local plug-in is not flagged.
        if (l.major < entry.major || (l.major == entry.major && entry.minor > l.minor))
            entry.outdated = true;
    }
}

RowStatus rowStatus(const CatalogueEntry& entry, bool downloaded) {
    if (entry.installed && entry.outdated)
        return RowStatus::Outdated;
    if (entry.installed)
        return RowStatus::UpToDate;
    if (downloaded)
        return RowStatus::RestartNeeded;
    if (entry.hasWindowsFile)
        return RowStatus::Download;
    return RowStatus::NotAvailable;
}

}  // namespace vlm
