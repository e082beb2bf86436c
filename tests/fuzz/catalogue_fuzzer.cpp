// libFuzzer target: a catalogue as any server may send it, joined with the loaded plug-ins and
// shown as the plug-in window shows it.
#include <QtGlobal>
#include <cstdio>
#include <cstdlib>

#include "Log.h"
#include "plugins/Catalogue.h"

// Each plug-in is echoed on standard output; the fuzzer reports on standard error.
[[maybe_unused]] static std::FILE* quiet = std::freopen("/dev/null", "w", stdout);
[[maybe_unused]] static const QtMessageHandler silent =
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
[[maybe_unused]] static const auto unlogged =
    vlm::logHook.exchange([](std::uint32_t, const char*, int, const char*) {});

// A name the agent would write outside its folders.
static bool unsafe(const std::string& name) {
    return name.find_first_of("/\\:") != std::string::npos || name == ".." ||
           name.find('\0') != std::string::npos;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vlm::CatalogueEntries entries;
    if (!vlm::readCatalogue(std::string(reinterpret_cast<const char*>(data), size), entries))
        return 0;
    // The server has every other plug-in loaded, in a version of its own, and one more.
    vlm::LocalVersions versions{{"local only", {1, 0}}};
    bool loaded = false;
    for (const auto& [name, entry] : entries)
        if ((loaded = !loaded))
            versions[name] = {entry.minor, entry.major};
    vlm::applyStatus(entries, versions);
    for (const auto& [name, entry] : entries) {
        const vlm::RowStatus status = vlm::rowStatus(entry, false);
        const bool installedRow =
            status == vlm::RowStatus::Outdated || status == vlm::RowStatus::UpToDate;
        if (installedRow != (versions.count(name) == 1) ||
            (entry.hasWindowsFile && unsafe(entry.windowsFile)))
            std::abort();
        for (const vlm::ImageRecord& image : entry.images)
            if (unsafe(vlm::pictureName(image)))
                std::abort();
    }
    return 0;
}
