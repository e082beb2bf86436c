#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "Agent/Agent.h"
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
        fs::create_directories(folder);
    }
    vlm::test::TempDir appData, common;
    const std::string folder = appData.path() + "/Corvane Technologies/velmor";
    const std::string file = folder + "/config.json";
};

// What a file holds → what is read, what is said, what the file holds after a change and the
// copy kept of a file that could not be used. Nothing blocks, crashes or is lost.
TEST_F(AppConfigTest, FilesReadChangedAndKept) {
    struct Case {
        const char* name;
        std::function<void(const std::string&)> make;
        std::string modeRead, said, after;
    } cases[] = {
        // clang-format off
        {"missing", [](auto&) {}, "", "", ""},
        {"round trip", [](auto& f) { writeFile(f, R"({ "mode" : 2, "r": 0.1, "plugins": [] })"); }, "2", "", R"({"mode":1,"r":0.1,"plugins":[]})"},
        {"wrong types", [](auto& f) { writeFile(f, R"({"mode":"x","plugins":5})"); }, "other", "", R"({"mode":1,"plugins":5})"},
        {"not json", [](auto& f) { writeFile(f, "{ not json"); }, "", "does not hold a JSON object", ""},
        {"folder", [](auto& f) { fs::create_directory(f); }, "", "cannot be read (not a regular file)", ""},
        {"fifo", [](auto& f) { mkfifo(f.c_str(), 0600); }, "", "cannot be read (not a regular file)", ""},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(folder);
        fs::create_directories(folder);
        c.make(file);
        const std::string before = fs::is_regular_file(file) ? readFile(file) : "";
        const auto type = fs::status(file).type();
        vlm::AppConfig config;
        bool saved = false;
        const std::string out = capturedOutput([&] {
            config.load();
            EXPECT_EQ(modeOf(config), c.modeRead);
            saved = setMode(config, 1);
        });
        EXPECT_NE(out.find(c.said), std::string::npos) << out;
        if (type == fs::file_type::directory || type == fs::file_type::fifo) {
            EXPECT_FALSE(saved);
            EXPECT_EQ(fs::status(file).type(), type);
            EXPECT_NE(out.find("Cannot write"), std::string::npos) << out;
            continue;
        }
        EXPECT_TRUE(saved) << out;
        if (!c.after.empty()) {
            EXPECT_EQ(readFile(file), c.after);
        }
        EXPECT_NE(readFile(file).find(R"("mode":1)"), std::string::npos);
        EXPECT_EQ(fs::exists(file + ".invalid"), !c.said.empty());
        if (!c.said.empty()) {
            EXPECT_EQ(readFile(file + ".invalid"), before);
        }
        EXPECT_FALSE(fs::exists(file + ".tmp"));
    }
}

// A link (as dotfile managers keep it) stays a link with its target changed and its mode; each
// broken file in turn gets its own kept copy, never one over an earlier one.
TEST_F(AppConfigTest, LinkModeAndKeptCopies) {
    const std::string target = appData.file("dotfiles-config.json");
    fs::create_symlink(target, file);
    for (const char* broken : {"{ one", "{ two", "{ three"}) {
        writeFile(target, broken);
        chmod(target.c_str(), 0600);
        vlm::AppConfig config;
        capturedOutput([&] {
            config.load();
            EXPECT_TRUE(setMode(config, 3));
        });
        EXPECT_TRUE(fs::is_symlink(file));
        EXPECT_EQ(readFile(target), R"({"mode":3})");
        EXPECT_EQ(fs::status(target).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    }
    EXPECT_EQ(readFile(file + ".invalid"), "{ one");
    EXPECT_EQ(readFile(file + ".invalid.1"), "{ two");
    EXPECT_EQ(readFile(file + ".invalid.2"), "{ three");
}

// A read-only or full file system: the change is refused and said once, the document put
// back, the file intact; once writable again the change goes through.
TEST_F(AppConfigTest, UnwritableFileSystemRefusesTheChange) {
    const std::string text = R"({"mode": 2, "pad": ")" + std::string(1000, ' ') + "\"}";
    writeFile(file, text);
    vlm::AppConfig config;
    capturedOutput([&] { config.load(); });
    for (int kind = 0; kind < 2; ++kind) {
        std::string out;
        if (kind == 0) {
            vlm::test::ReadOnlyFolder readOnly(folder);
            out = capturedOutput([&] { EXPECT_FALSE(setMode(config, 1)); });
            EXPECT_EQ(config.saveError(), "Permission denied");
        } else {
            std::signal(SIGXFSZ, SIG_IGN);
            rlimit saved{}, full{};
            getrlimit(RLIMIT_FSIZE, &saved);
            full = {500, saved.rlim_max};  // room for the log, not for the file
            setrlimit(RLIMIT_FSIZE, &full);
            out = capturedOutput([&] { EXPECT_FALSE(setMode(config, 1)); });
            setrlimit(RLIMIT_FSIZE, &saved);
        }
        EXPECT_EQ(out.find("Cannot write"), out.rfind("Cannot write")) << out;
        EXPECT_NE(out.find("Cannot write " + file), std::string::npos) << out;
        EXPECT_EQ(modeOf(config), "2");
        EXPECT_EQ(readFile(file), text);
        EXPECT_FALSE(fs::exists(file + ".tmp"));
    }
    EXPECT_EQ(config.failedSaves(), 2u);
    EXPECT_TRUE(setMode(config, 1));
    EXPECT_EQ(config.saveError(), "");
}

// A new account: HOME holds nothing, neither APPDATA nor XDG_CONFIG_HOME is set. Every folder
// is made with its parents, and machine-wide folders come first in the plug-in search.
TEST_F(AppConfigTest, EmptyHomeGetsEveryFolder) {
    unsetenv("APPDATA");
    unsetenv("XDG_CONFIG_HOME");
    vlm::test::TempDir home;
    setenv("HOME", home.path().c_str(), 1);
    vlm::AppConfig config;
    capturedOutput([&] { config.load(); });
    const std::string app = home.path() + "/.config/Corvane Technologies/velmor";
    for (const char* sub :
         {"", "/plugins", "/storage", "/pictures", "/logs", "/connections", "/debug"})
        EXPECT_TRUE(fs::is_directory(app + sub)) << sub;
    EXPECT_TRUE(setMode(config, 2));
    EXPECT_NE(readFile(app + "/config.json").find(R"("mode":2)"), std::string::npos);
    const std::string base = common.path() + "/Corvane Technologies/Velmor";
    ASSERT_EQ(config.pluginFolders.size(), 2u);
    EXPECT_EQ(config.pluginFolders[0], base + "/Plugins");
    EXPECT_EQ(config.pluginFolders[1], app + "/plugins");
    EXPECT_EQ(config.webAppFolder, base + "/webapp");  // kept although it does not exist
}

// The built-in plug-in table seeds a configuration without "plugins", in order; lookups match
// the exact file name.
TEST_F(AppConfigTest, PluginTable) {
    writeFile(file, "{}");
    vlm::AppConfig config;
    config.load();
    const auto& plugins = (*config.document)["plugins"];
    ASSERT_EQ(plugins.Size(), 10u);
    const char* names[] = {"disco_bonjour",      "disco_SAP",    "proxy_tessel", "proxy_native",
                           "proxy_o_corestream", "proxy_halden", "routeline",    "proxy_wavenet",
                           "linkbus_rif",        "proxy_file"};
    for (rapidjson::SizeType i = 0; i < 10; ++i) {
        EXPECT_EQ(plugins[i]["name"].GetString(), std::string(names[i]) + ".dll");
        EXPECT_EQ(plugins[i]["enabled"].GetBool(), i < 6 && i != 1) << names[i];
        EXPECT_STREQ((plugins[i].MemberBegin() + 1)->name.GetString(), "descr");
    }
    EXPECT_STREQ(plugins[3]["descr"].GetString(),
                 "Native generic proxy (converters, interfaces, cards, virtual devices and more");
    EXPECT_STREQ(vlm::findPluginEntry(config, "proxy_halden.dll")->operator[]("descr").GetString(),
                 "Halden based devices proxy");
    for (const char* other : {"PROXY_HALDEN.dll", "proxy_halden", "proxy_halden.dl"})
        EXPECT_EQ(vlm::findPluginEntry(config, other), nullptr) << other;
}

// The interface filter list: absent or empty means none ("0"); an element whose hardware_id
// is missing or not a string is skipped, never read as "" (which matches a VPN tunnel).
TEST(EngineHost, HardwareIdsFromTheConfiguration) {
    using Ids = std::vector<std::string>;
    const std::string list = R"({"discovery": {"filtering": )";
    // clang-format off
    const std::pair<std::string, Ids> cases[] = {
        {"{}", {"0"}}, {list + "[]}}", {"0"}}, {list + "{}}}", {"0"}}, {R"({"discovery": 5})", {"0"}},
        {list + R"([{"hardware_id": "AA:01"}, {"hardware_id": "0"}]}})", {"AA:01", "0"}},
        {list + R"([{"hardware_id": "AA:01"}, {}]}})", {"AA:01"}},
        {list + R"([3, {"hardware_id": 7}, {"hardware_id": "AA:01"}]}})", {"AA:01"}},
        {list + R"([{"hardware_id": 7}]}})", {"0"}}};
    // clang-format on
    for (const auto& [text, ids] : cases) {
        vlm::json::Document document;
        vlm::json::parseString(document, text.c_str());
        capturedOutput([&] { EXPECT_EQ(vlm::interfaceHardwareIdsFrom(&document), ids) << text; });
    }
    EXPECT_EQ(vlm::interfaceHardwareIdsFrom(nullptr), Ids{"0"});
}

}  // namespace
