#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "AppConfig.h"
#include "TestSupport.h"

namespace {

namespace fs = std::filesystem;
using namespace vlm::test;

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
    TempDir appData, common;
    const std::string folder = appData.path() + "/Corvane Technologies/velmor";
    const std::string file = folder + "/config.json";
};

// A file → what is read and said, what it holds after a change (nullptr: refused, said once,
// document and file as they were), where an unusable file is kept; links, modes stay, FIFOs never
// block. Full and read-only file systems: a real tmpfs in the thread's own mount namespace (root).
TEST_F(AppConfigTest, FilesReadChangedAndKept) {
    const std::string target = appData.file("dotfiles.json");
    auto text = [](const char* content) {
        return [=](auto& f) { return writeFile(f, content), true; };
    };
    auto tmpfs = [&](unsigned long flags, const std::string& filler) {
        const bool made = mount("velmor", folder.c_str(), "tmpfs", 0, "size=32k") == 0;
        writeFile(file, R"({"mode": 2})");
        writeFile(folder + "/filler", filler);
        return made && mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0;
    };
    struct Case {
        const char* name;
        std::function<bool(const std::string&)> make;  // false: the case cannot be made here
        const char *read, *said, *after, *kept;
    } cases[] = {
        // clang-format off
        {"missing", [](auto&) { return true; }, "", "", R"({"plugins":[{"name":"disco_bonjour.dll",)", nullptr},
        {"round trip", text(R"({ "mode" : 2, "r": 0.1, "plugins": [] })"), "2", "", R"({"mode":1,"r":0.1,"plugins":[]})", nullptr},
        {"not json", text("{ not json"), "", "does not hold a JSON object", R"("mode":1})", ".invalid"},
        {"not an object", text("[1]"), "", "does not hold a JSON object", R"({"mode":1})", ".invalid"},
        {"kept before", [](auto& f) { writeFile(f + ".invalid", "{ one"); return writeFile(f, "{ two"), true; }, "", "kept as", "\"mode\":1}", ".invalid.1"},
        {"link", [&](auto& f) { writeFile(target, "{ one"); chmod(target.c_str(), 0600); fs::create_symlink(target, f); return true; }, "", "kept as", "\"mode\":1}", ".invalid"},
        {"folder", [](auto& f) { return fs::create_directory(f); }, "", "cannot be read (not a regular file)", nullptr, nullptr},
        {"fifo", [](auto& f) { return mkfifo(f.c_str(), 0600) == 0; }, "", "cannot be read (not a regular file)", nullptr, nullptr},
        {"full", [&](auto&) { return tmpfs(0, std::string(32768, ' ')); }, "2", "No space left on device", nullptr, nullptr},
        {"read-only", [&](auto&) { return tmpfs(MS_RDONLY, ""); }, "2", "Read-only file system", nullptr, nullptr},
        // clang-format on
    };
    std::thread([&] {
        if (unshare(CLONE_NEWNS) == 0)
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name);
            umount2(folder.c_str(), MNT_DETACH);
            fs::remove_all(appData.path());
            fs::create_directories(folder);
            if (!c.make(file))
                continue;
            const std::string before = fs::is_regular_file(file) ? readFile(file) : "";
            const auto status = fs::status(file), own = fs::symlink_status(file);
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
            EXPECT_TRUE(!fs::exists(status) ||
                        (fs::symlink_status(file).type() == own.type() &&
                         fs::status(file).permissions() == status.permissions()));
            EXPECT_FALSE(fs::exists(file + ".tmp") || fs::exists(target + ".tmp"));
            if (!c.after) {
                EXPECT_EQ(fs::is_regular_file(file) ? readFile(file) : "", before);
                EXPECT_EQ(modeOf(config), c.read);
                EXPECT_NE(out.find("Cannot write " + file + ":"), std::string::npos) << out;
                EXPECT_EQ(out.find("Cannot write"), out.rfind("Cannot write")) << out;
                continue;
            }
            EXPECT_NE(readFile(file).find(c.after), std::string::npos) << readFile(file);
            EXPECT_EQ(c.kept ? readFile(file + c.kept) : before, before);
            EXPECT_EQ(fs::exists(file + ".invalid"), c.kept != nullptr);
        }
        umount2(folder.c_str(), MNT_DETACH);
    }).join();
}

// A new account (an empty HOME, no APPDATA nor XDG_CONFIG_HOME): every folder is made with its
// parents, machine-wide plug-ins come first, the plug-in table is seeded in order.
TEST_F(AppConfigTest, NewAccount) {
    unsetenv("APPDATA");
    unsetenv("XDG_CONFIG_HOME");
    TempDir home;
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
    EXPECT_TRUE(setMode(config, 2));
}

}  // namespace
