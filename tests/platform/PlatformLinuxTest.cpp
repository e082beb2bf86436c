#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/Platform.h"

namespace {

class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name))
            old_ = old;
        value ? setenv(name, value, 1) : unsetenv(name);
    }
    ~ScopedEnv() { old_.empty() ? unsetenv(name_) : setenv(name_, old_.c_str(), 1); }

private:
    const char* name_;
    std::string old_;
};

TEST(Platform, UserFolderFallsBackFromAppDataToXdgToHome) {
    ScopedEnv home("HOME", "/home/u");
    {
        ScopedEnv appData("APPDATA", "/a");
        ScopedEnv xdg("XDG_CONFIG_HOME", "/x");
        EXPECT_EQ(vlm::platform::userAppDataFolder(), "/a");
    }
    {
        ScopedEnv appData("APPDATA", nullptr);
        ScopedEnv xdg("XDG_CONFIG_HOME", "/x");
        EXPECT_EQ(vlm::platform::userAppDataFolder(), "/x");
    }
    ScopedEnv appData("APPDATA", nullptr);
    ScopedEnv xdg("XDG_CONFIG_HOME", nullptr);
    EXPECT_EQ(vlm::platform::userAppDataFolder(), "/home/u/.config");
}

TEST(Platform, CommonFolders) {
    std::string folder;
    {
        ScopedEnv common("VELMOR_COMMON_APPDATA", nullptr);
        ASSERT_TRUE(vlm::platform::commonWebAppFolder(folder));
        EXPECT_EQ(folder, "/usr/share/Corvane Technologies/Velmor/webapp");
    }
    ScopedEnv common("VELMOR_COMMON_APPDATA", "/srv/c");
    ASSERT_TRUE(vlm::platform::commonPluginFolder(folder));
    EXPECT_EQ(folder, "/srv/c/Corvane Technologies/Velmor/Plugins");
}

TEST(Platform, SingleInstanceNameIsPerUser) {
    {
        ScopedEnv runtime("XDG_RUNTIME_DIR", "/run/user/1000");
        EXPECT_EQ(vlm::platform::singleInstanceServerName(),
                  "/run/user/1000/velmor_agent_singleton");
    }
    ScopedEnv runtime("XDG_RUNTIME_DIR", nullptr);
    ScopedEnv tmp("TMPDIR", nullptr);
    EXPECT_EQ(vlm::platform::singleInstanceServerName(),
              "/tmp/velmor_agent_singleton-" + std::to_string(getuid()));
}

TEST(Platform, VersionText) {
    EXPECT_EQ(vlm::platform::versionText(), "1.0.0 b1");
}

}  // namespace
