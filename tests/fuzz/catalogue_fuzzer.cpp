// libFuzzer target: any catalogue, read and shown as the plug-in window shows it.
#include <QtGlobal>
#include "Log.h"
#include "plugins/Catalogue.h"
// Each plug-in is echoed on standard output; the fuzzer reports on standard error.
[[maybe_unused]] static std::FILE* quiet = std::freopen("/dev/null", "w", stdout);
[[maybe_unused]] static auto silent =
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
[[maybe_unused]] static auto unlogged =
    vlm::logHook.exchange([](std::uint32_t, const char*, int, const char*) {});

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vlm::CatalogueEntries entries;
    vlm::readCatalogue(std::string(reinterpret_cast<const char*>(data), size), entries);
    // The server has one plug-in of the catalogue loaded, and one the catalogue lacks.
    const vlm::LocalVersions versions{{"proxy_native", {3, 1}}, {"local only", {1, 0}}};
    vlm::applyStatus(entries, versions);
    // Loaded plug-ins show how current they are; no file or picture name leaves its folder.
    for (const auto& [name, entry] : entries) {
        std::string names = entry.hasWindowsFile ? entry.windowsFile : "";
        for (const vlm::ImageRecord& image : entry.images)
            names += vlm::pictureName(image);
        if ((vlm::rowStatus(entry, false) <= vlm::RowStatus::UpToDate) != versions.count(name) ||
            names.find_first_of("/\\:") != std::string::npos)
            std::abort();
    }
    return 0;
}
