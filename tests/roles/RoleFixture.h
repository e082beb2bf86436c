#pragma once
// Runs the real executable in a temporary per-user and machine-wide folder.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace vlm::test {

class RoleFixture : public ::testing::Test {
protected:
    RoleFixture() : port(freeLoopbackPort()) {}

    std::map<std::string, std::string> environment() const {
        return {{"APPDATA", appData.path()},
                {"VELMOR_COMMON_APPDATA", common.path()},
                {"XDG_RUNTIME_DIR", runtime.path()},
                {"QT_QPA_PLATFORM", "offscreen"},
                {"VELMOR_ENGINE_PORT", std::to_string(port)},
                // No DNS-SD here: the machine's own network must not see test engines.
                {"VELMOR_DNSSD_LIBRARY", runtime.path() + "/no-dnssd.so"}};
    }

    std::unique_ptr<Child> start(const std::vector<std::string>& args) const {
        return std::make_unique<Child>(velmorPath(), args, environment(), outputs.path());
    }

    std::string appFolder() const { return appData.path() + "/Corvane Technologies/velmor"; }

    void writeConfig(const std::string& text) const {
        std::filesystem::create_directories(appFolder());
        writeFile(appFolder() + "/config.json", text);
    }

    TempDir appData;
    TempDir common;
    TempDir runtime;
    TempDir outputs;
    unsigned short port;
};

}  // namespace vlm::test
