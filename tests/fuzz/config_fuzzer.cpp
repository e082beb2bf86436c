// libFuzzer target: whatever config.json holds, read at start and saved back; a file that is
// not a JSON object must survive byte for byte as the kept-aside copy.
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "Agent/Agent.h"
#include "Agent/EndpointProbe.h"
#include "AppConfig.h"
#include "Log.h"
#include "PluginInventory.h"

static const std::string file = [] {
    static char home[] = "/tmp/config_fuzzer.XXXXXX";
    setenv("APPDATA", mkdtemp(home), 1);
    vlm::logHook = [](std::uint32_t, const char*, int, const char*) {};
    vlm::AppConfig probe;
    probe.load();
    return probe.configFilePath;
}();

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::ofstream(file, std::ios::binary) << text;
    vlm::AppConfig config;
    config.load();
    vlm::agentModeFrom(config.document.get());
    vlm::interfaceHardwareIdsFrom(config.document.get());
    vlm::probeLocalAddress(config.document.get(), "127.0.0.1");
    vlm::findPluginEntry(config, "proxy_native.dll");
    const bool keptAside = !config.document->IsObject();
    config.save();
    std::ifstream kept(file + ".invalid", std::ios::binary);
    if (keptAside != kept.is_open() ||
        (kept && std::string(std::istreambuf_iterator<char>(kept), {}) != text))
        std::abort();
    std::remove((file + ".invalid").c_str());
    return 0;
}
