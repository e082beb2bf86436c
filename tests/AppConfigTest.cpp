#include <gtest/gtest.h>

#include <cstdlib>

#include "AppConfig.h"
#include "PluginInventory.h"
#include "support/TestSupport.h"

namespace {

using vlm::test::exists;
using vlm::test::readFile;
using vlm::test::writeFile;

class AppConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("APPDATA", appData.path().c_str(), 1);
        setenv("VELMOR_COMMON_APPDATA", common.path().c_str(), 1);
    }
    std::string appFolder() const { return appData.path() + "/Corvane Technologies/velmor"; }
    std::string configPath() const { return appFolder() + "/config.json"; }
    void writeConfig(const std::string& text) {
        std::filesystem::create_directories(appFolder());
        writeFile(configPath(), text);
    }

    vlm::test::TempDir appData;
    vlm::test::TempDir common;
};

TEST_F(AppConfigTest, FirstRunBuildsTheFolderTree) {
    vlm::AppConfig config;
    config.load();
    for (const char* sub :
         {"", "/plugins", "/storage", "/pictures", "/logs", "/connections", "/debug"})
        EXPECT_TRUE(std::filesystem::is_directory(appFolder() + sub)) << sub;
    EXPECT_EQ(config.appFolder, appFolder());
    EXPECT_EQ(config.pluginsFolder, appFolder() + "/plugins");
    EXPECT_EQ(config.configFilePath, configPath());
    ASSERT_TRUE(config.document);
    EXPECT_TRUE(config.document->IsObject());
    // Only the plug-in table is there on a first run, and nothing is written yet.
    EXPECT_EQ(config.document->MemberCount(), 1u);
    EXPECT_FALSE(exists(configPath()));
}

TEST_F(AppConfigTest, MachineWideFoldersAndSearchOrder) {
    vlm::AppConfig config;
    config.load();
    const std::string base = common.path() + "/Corvane Technologies/Velmor";
    ASSERT_EQ(config.pluginFolders.size(), 2u);
    EXPECT_EQ(config.pluginFolders[0], base + "/Plugins");
    EXPECT_EQ(config.pluginFolders[1], appFolder() + "/plugins");
    // The web-app path is kept even though the folder does not exist.
    EXPECT_EQ(config.webAppFolder, base + "/webapp");
    EXPECT_FALSE(exists(config.webAppFolder));
}

TEST_F(AppConfigTest, ExplicitPathIsRead) {
    std::string path = appData.file("other.json");
    writeFile(path, R"({"mode": 2})");
    vlm::AppConfig config;
    config.load(path.c_str());
    EXPECT_EQ(config.configFilePath, path);
    EXPECT_EQ((*config.document)["mode"].GetInt(), 2);
}

TEST_F(AppConfigTest, SaveWritesCompactJsonAndRoundTrips) {
    writeConfig(R"({ "mode" : 1, "server" : { "ip" : "10.0.0.5" }, "ratio": 0.1, "plugins": [] })");
    {
        vlm::AppConfig config;
        config.load();
        config.save();
    }
    EXPECT_EQ(readFile(configPath()),
              R"({"mode":1,"server":{"ip":"10.0.0.5"},"ratio":0.1,"plugins":[]})");
    EXPECT_FALSE(exists(configPath() + ".tmp"));
}

TEST_F(AppConfigTest, SeededTableReachesDiskWithTheNextSave) {
    vlm::AppConfig config;
    config.load();
    config.save();
    vlm::AppConfig reread;
    reread.load();
    ASSERT_TRUE(reread.document->HasMember("plugins"));
    EXPECT_EQ((*reread.document)["plugins"].Size(), 10u);
}

// Files that are not what the program expects must never stop it, and the user's text is kept.
struct BrokenConfig {
    const char* name;
    const char* text;
};

class BrokenConfigTest : public AppConfigTest,
                         public ::testing::WithParamInterface<BrokenConfig> {};

TEST_P(BrokenConfigTest, LoadsAndSavesWithoutLosingTheFile) {
    writeConfig(GetParam().text);
    vlm::AppConfig config;
    ::testing::internal::CaptureStdout();
    config.load();
    EXPECT_EQ(vlm::findPluginEntry(config, "disco_bonjour.dll"), nullptr);
    // The first writer makes the root an object, so the saved file is valid JSON.
    vlm::json::ensurePath(*config.document, {"server"});
    config.save();
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("not an object [plugins]"), std::string::npos) << out;
    EXPECT_EQ(readFile(configPath()), R"({"server":{}})");
    EXPECT_EQ(readFile(configPath() + ".invalid"), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Files, BrokenConfigTest,
                         ::testing::Values(BrokenConfig{"notJson", "{ this is not json"},
                                           BrokenConfig{"empty", ""},
                                           BrokenConfig{"truncated", R"({"mode": 1, "serv)"},
                                           BrokenConfig{"array", "[1, 2, 3]"}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(AppConfigTest, WrongTypesAreKeptAndNeverCrash) {
    writeConfig(R"({"mode": "x", "plugins": 5, "discovery": {"filtering": {}}})");
    vlm::AppConfig config;
    config.load();
    EXPECT_TRUE((*config.document)["plugins"].IsInt());
    EXPECT_EQ(vlm::findPluginEntry(config, "disco_bonjour.dll"), nullptr);
    config.save();
    EXPECT_EQ(readFile(configPath()), R"({"mode":"x","plugins":5,"discovery":{"filtering":{}}})");
}

TEST_F(AppConfigTest, UnwritableFolderIsReportedNotFatal) {
    vlm::AppConfig config;
    std::string path = appData.path() + "/missing/config.json";
    config.load(path.c_str());
    ::testing::internal::CaptureStdout();
    config.save();
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Cannot write"), std::string::npos) << out;
}

TEST_F(AppConfigTest, AChangeThatCannotBeWrittenIsNotMade) {
    writeConfig(R"({"mode": 2})");
    vlm::AppConfig config;
    config.load();
    ::testing::internal::CaptureStdout();
    {
        vlm::test::ReadOnlyFolder readOnly(appFolder());
        EXPECT_FALSE(
            config.change([](vlm::json::Document& document) { document["mode"].SetInt(1); }));
    }
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ((*config.document)["mode"].GetInt(), 2);
    EXPECT_EQ(config.saveError(), "Permission denied");
    EXPECT_EQ(config.failedSaves(), 1u);
    EXPECT_NE(out.find("Cannot write " + configPath() + ".tmp: Permission denied"),
              std::string::npos)
        << out;
    EXPECT_EQ(readFile(configPath()), R"({"mode": 2})");

    // Writable again: the same change goes through and the error is forgotten.
    EXPECT_TRUE(config.change([](vlm::json::Document& document) { document["mode"].SetInt(1); }));
    EXPECT_EQ(config.saveError(), "");
    EXPECT_EQ(config.failedSaves(), 1u);
    EXPECT_EQ(readFile(configPath()).substr(0, 10), R"({"mode":1,)");
}

TEST_F(AppConfigTest, AnUnreadableFileIsNeverWrittenOverWhileItCannotBeKeptAside) {
    writeConfig("{ the user's own text");
    vlm::AppConfig config;
    ::testing::internal::CaptureStdout();
    config.load();
    vlm::json::ensurePath(*config.document, {"server"});
    {
        vlm::test::ReadOnlyFolder readOnly(appFolder());
        EXPECT_FALSE(config.save());
    }
    EXPECT_EQ(readFile(configPath()), "{ the user's own text");
    EXPECT_FALSE(exists(configPath() + ".invalid"));

    EXPECT_TRUE(config.save());
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(readFile(configPath() + ".invalid"), "{ the user's own text");
    EXPECT_EQ(readFile(configPath()).substr(0, 12), R"({"server":{})");
}

}  // namespace
