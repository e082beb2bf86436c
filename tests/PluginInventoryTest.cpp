#include <gtest/gtest.h>

#include "AppConfig.h"
#include "PluginInventory.h"
#include "support/TestSupport.h"

namespace {

class PluginInventoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("APPDATA", appData.path().c_str(), 1);
        setenv("VELMOR_COMMON_APPDATA", appData.path().c_str(), 1);
    }
    void load(const std::string& text) {
        std::string path = appData.file("config.json");
        vlm::test::writeFile(path, text);
        config.load(path.c_str());
    }
    vlm::test::TempDir appData;
    vlm::AppConfig config;
};

TEST_F(PluginInventoryTest, FirstStartSeedsTheBuiltInTableInOrder) {
    load("{}");
    const auto& plugins = (*config.document)["plugins"];
    ASSERT_TRUE(plugins.IsArray());
    ASSERT_EQ(plugins.Size(), 10u);
    const char* names[] = {"disco_bonjour",      "disco_SAP",    "proxy_tessel", "proxy_native",
                           "proxy_o_corestream", "proxy_halden", "routeline",    "proxy_wavenet",
                           "linkbus_rif",        "proxy_file"};
    const bool enabled[] = {true, false, true, true, true, true, false, false, false, false};
    for (rapidjson::SizeType i = 0; i < 10; ++i) {
        const auto& entry = plugins[i];
        EXPECT_EQ(std::string(entry["name"].GetString()), std::string(names[i]) + ".dll");
        EXPECT_EQ(entry["enabled"].GetBool(), enabled[i]) << names[i];
        // Members come in this order: name, descr, enabled.
        auto member = entry.MemberBegin();
        EXPECT_STREQ(member->name.GetString(), "name");
        EXPECT_STREQ((++member)->name.GetString(), "descr");
        EXPECT_STREQ((++member)->name.GetString(), "enabled");
    }
    EXPECT_STREQ(plugins[3]["descr"].GetString(),
                 "Native generic proxy (converters, interfaces, cards, virtual devices and more");
    EXPECT_STREQ(plugins[1]["descr"].GetString(), "SAP Streams discovery (Dante & AES67)");
}

TEST_F(PluginInventoryTest, UserListIsKeptAsItIs) {
    load(R"({"plugins": [{"name": "mine.dll", "descr": "x", "enabled": false}]})");
    EXPECT_EQ((*config.document)["plugins"].Size(), 1u);
    EXPECT_NE(vlm::findPluginEntry(config, "mine.dll"), nullptr);
    EXPECT_EQ(vlm::findPluginEntry(config, "disco_bonjour.dll"), nullptr);
}

TEST_F(PluginInventoryTest, EmptyListFindsNothing) {
    load(R"({"plugins": []})");
    EXPECT_EQ((*config.document)["plugins"].Size(), 0u);
    EXPECT_EQ(vlm::findPluginEntry(config, "disco_bonjour.dll"), nullptr);
}

TEST_F(PluginInventoryTest, FindMatchesExactNameOnly) {
    load("{}");
    vlm::json::Value* entry = vlm::findPluginEntry(config, "proxy_halden.dll");
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ((*entry)["descr"].GetString(), "Halden based devices proxy");
    EXPECT_EQ(vlm::findPluginEntry(config, "PROXY_HALDEN.dll"), nullptr);
    EXPECT_EQ(vlm::findPluginEntry(config, "proxy_halden"), nullptr);
    EXPECT_EQ(vlm::findPluginEntry(config, "proxy_halden.dl"), nullptr);
}

TEST_F(PluginInventoryTest, EntryWithoutNameIsReportedAndSkipped) {
    load(R"({"plugins": [{"descr": "nameless"}, 7, {"name": "b.dll"}]})");
    ::testing::internal::CaptureStdout();
    vlm::json::Value* entry = vlm::findPluginEntry(config, "b.dll");
    std::string out = ::testing::internal::GetCapturedStdout();
    ASSERT_NE(entry, nullptr);
    EXPECT_NE(out.find("rapidJson: member name not found; please fix it!\n"), std::string::npos);
    EXPECT_NE(out.find("not an object [name]\n"), std::string::npos);
}

}  // namespace
