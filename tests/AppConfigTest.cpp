#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include "AppConfig.h"
#include "PluginInventory.h"
#include "TestSupport.h"

namespace {

namespace fs = std::filesystem;
using vlm::test::capturedOutput;
using vlm::test::readFile;
using vlm::test::writeFile;

bool setMode(vlm::AppConfig& config, int mode) {
    return config.change([=](auto& d) { vlm::json::ensurePath(d, {"mode"}).SetInt(mode); });
}

std::string modeOf(vlm::AppConfig& config) {
    const vlm::json::Value* mode = vlm::json::findPath(config.document.get(), {"mode"});
    return !mode ? "" : mode->IsInt() ? std::to_string(mode->GetInt()) : "other";
}

class AppConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("APPDATA", appData.path().c_str(), 1);
        setenv("VELMOR_COMMON_APPDATA", common.path().c_str(), 1);
    }
    vlm::test::TempDir appData, common;
    const std::string folder = appData.path() + "/Corvane Technologies/velmor";
    const std::string file = folder + "/config.json";
};

// What a file holds → what is read and said, what the file holds after a change (nullptr: the
// change is refused, the file left as it is) and where a file that could not be used is kept.
// A link (as dotfile managers keep it) stays a link with its target's mode; a FIFO never blocks.
TEST_F(AppConfigTest, FilesReadChangedAndKept) {
    const std::string target = appData.file("dotfiles.json");
    auto text = [](const char* content) { return [=](auto& f) { writeFile(f, content); }; };
    struct Case {
        const char* name;
        std::function<void(const std::string&)> make;
        const char *read, *said, *after, *kept;
    } cases[] = {
        // clang-format off
        {"missing", [](auto&) {}, "", "", R"({"plugins":[{"name":"disco_bonjour.dll",)", nullptr},
        {"round trip", text(R"({ "mode" : 2, "r": 0.1, "plugins": [] })"), "2", "", R"({"mode":1,"r":0.1,"plugins":[]})", nullptr},
        {"wrong types", text(R"({"mode":"x","plugins":5})"), "other", "", R"({"mode":1,"plugins":5})", nullptr},
        {"not json", text("{ not json"), "", "does not hold a JSON object", R"("mode":1})", ".invalid"},
        {"not an object", text("[1]"), "", "does not hold a JSON object", R"({"mode":1})", ".invalid"},
        {"kept before", [](auto& f) { writeFile(f + ".invalid", "{ one"); writeFile(f, "{ two"); }, "", "kept as", "\"mode\":1}", ".invalid.1"},
        {"link", [&](auto& f) { writeFile(target, "{ one"); chmod(target.c_str(), 0600); fs::create_symlink(target, f); }, "", "kept as", "\"mode\":1}", ".invalid"},
        {"folder", [](auto& f) { fs::create_directory(f); }, "", "cannot be read (not a regular file)", nullptr, nullptr},
        {"fifo", [](auto& f) { mkfifo(f.c_str(), 0600); }, "", "cannot be read (not a regular file)", nullptr, nullptr},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(appData.path());
        fs::create_directories(folder);
        c.make(file);
        const std::string before = fs::is_regular_file(file) ? readFile(file) : "";
        const auto status = fs::status(file);
        const bool link = fs::is_symlink(file);
        vlm::AppConfig config;
        bool saved = false;
        const std::string out = capturedOutput([&] {
            config.load();
            EXPECT_EQ(modeOf(config), c.read);
            saved = setMode(config, 1);
        });
        EXPECT_EQ(out.empty(), !*c.said) << out;
        EXPECT_NE(out.find(c.said), std::string::npos) << out;
        EXPECT_EQ(saved, c.after != nullptr) << out;
        EXPECT_EQ(fs::is_symlink(file), link);
        if (!c.after) {
            EXPECT_EQ(fs::status(file).type(), status.type());
            EXPECT_NE(out.find("Cannot write " + file + ": not a regular file"), std::string::npos);
            continue;
        }
        EXPECT_NE(readFile(file).find(c.after), std::string::npos) << readFile(file);
        EXPECT_EQ(c.kept ? readFile(file + c.kept) : before, before);
        EXPECT_EQ(fs::exists(file + ".invalid"), c.kept != nullptr);
        EXPECT_TRUE(!fs::exists(status) || fs::status(file).permissions() == status.permissions());
        EXPECT_FALSE(fs::exists(file + ".tmp") || fs::exists(target + ".tmp"));
    }
}

// A full or a read-only file system (a small tmpfs in a mount namespace of the thread's own,
// gone with it): the change is refused and said once, the document and the file stay as they
// were, and the change goes through once the file system takes it again.
TEST_F(AppConfigTest, FullOrReadOnlyFileSystem) {
    const std::string text = R"({"mode": 2, "plugins": []})";
    for (const bool full : {true, false}) {
        std::thread([&] {
            SCOPED_TRACE(full ? "full" : "read-only");
            fs::create_directories(folder);
            ASSERT_TRUE(unshare(CLONE_NEWNS) == 0 &&
                        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                        mount("velmor", folder.c_str(), "tmpfs", 0, "size=32k") == 0)
                << "needs root: " << std::strerror(errno);
            writeFile(file, text);
            vlm::AppConfig config;
            config.load();
            const auto remount = [&](unsigned long flags) {
                return mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | flags, "size=32k");
            };
            if (full)
                writeFile(folder + "/filler", std::string(32 * 1024, ' '));
            else
                ASSERT_EQ(remount(MS_RDONLY), 0);
            const std::string out = capturedOutput([&] { EXPECT_FALSE(setMode(config, 1)); });
            EXPECT_NE(out.find("Cannot write " + file), std::string::npos) << out;
            EXPECT_EQ(out.find("Cannot write"), out.rfind("Cannot write")) << out;
            EXPECT_EQ(modeOf(config), "2");
            EXPECT_EQ(readFile(file), text);
            EXPECT_FALSE(fs::exists(file + ".tmp"));
            ASSERT_EQ(full ? !fs::remove(folder + "/filler") : remount(0), 0);
            EXPECT_TRUE(setMode(config, 1));
            EXPECT_EQ(readFile(file), R"({"mode":1,"plugins":[]})");
        }).join();
    }
}

// A new account: HOME holds nothing, neither APPDATA nor XDG_CONFIG_HOME is set. Every folder
// is made with its parents, machine-wide folders come first in the plug-in search, and the
// built-in plug-in table is seeded in order; lookups match the exact file name.
TEST_F(AppConfigTest, NewAccount) {
    unsetenv("APPDATA");
    unsetenv("XDG_CONFIG_HOME");
    vlm::test::TempDir home;
    setenv("HOME", home.path().c_str(), 1);
    vlm::AppConfig config;
    config.load();
    const std::string app = home.path() + "/.config/Corvane Technologies/velmor";
    for (const char* sub : {"/plugins", "/storage", "/pictures", "/logs", "/connections", "/debug"})
        EXPECT_TRUE(fs::is_directory(app + sub)) << sub;
    const std::string base = common.path() + "/Corvane Technologies/Velmor";
    EXPECT_EQ(config.pluginFolders, (std::vector<fs::path>{base + "/Plugins", app + "/plugins"}));
    EXPECT_EQ(config.webAppFolder, base + "/webapp");  // kept although it does not exist
    std::string rows;
    for (const auto& plugin : (*config.document)["plugins"].GetArray())
        rows += plugin["name"].GetString() + std::string(plugin["enabled"].GetBool() ? "+ " : " ");
    EXPECT_EQ(rows,
              "disco_bonjour.dll+ disco_SAP.dll proxy_tessel.dll+ proxy_native.dll+ "
              "proxy_o_corestream.dll+ proxy_halden.dll+ routeline.dll proxy_wavenet.dll "
              "linkbus_rif.dll proxy_file.dll ");
    EXPECT_STREQ((*vlm::findPluginEntry(config, "proxy_native.dll"))["descr"].GetString(),
                 "Native generic proxy (converters, interfaces, cards, virtual devices and more");
    for (const char* other : {"PROXY_HALDEN.dll", "proxy_halden", "proxy_halden.dl"})
        EXPECT_EQ(vlm::findPluginEntry(config, other), nullptr) << other;
    EXPECT_TRUE(setMode(config, 2));
}

}  // namespace
