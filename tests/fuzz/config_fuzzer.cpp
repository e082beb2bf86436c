// libFuzzer target: any config.json, read at start and saved back; a file that is not one JSON
// object (no JSON text holds a NUL byte) must be kept aside byte for byte.
#include <fstream>
#include "Agent/Agent.h"
#include "AppConfig.h"
static const std::string file = [] {
    static char home[] = "/dev/shm/config_fuzzer.XXXXXX";  // each save syncs: tmpfs
    setenv("APPDATA", mkdtemp(home), 1);
    std::freopen("/dev/null", "w", stdout);  // the log and the JSON layer's messages
    vlm::AppConfig::instance().load();
    return vlm::AppConfig::instance().configFilePath;
}();

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::ofstream(file, std::ios::binary) << text;
    vlm::AppConfig config;
    config.load();
    vlm::agentModeFrom(config.document.get());
    vlm::interfaceHardwareIdsFrom(config.document.get());
    config.save();
    std::ifstream kept(file + ".invalid", std::ios::binary);
    if ((config.document->IsObject() && text.find('\0') == std::string::npos) == kept.is_open() ||
        (kept && std::string(std::istreambuf_iterator<char>(kept), {}) != text))
        std::abort();
    return std::remove((file + ".invalid").c_str()), 0;
}
