#include <QString>

#include "AgentFixture.h"

namespace {

using vlm::test::AgentFixture;
using vlm::test::LogCapture;
using vlm::test::ReadOnlyFolder;
using Texts = std::vector<std::string>;

class AgentMode : public AgentFixture {};

TEST_F(AgentMode, ComesFromTheConfiguration) {
    EXPECT_EQ(makeAgent("{}")->mode, vlm::kModeHybrid);
    EXPECT_EQ(makeAgent(R"({"mode": null})")->mode, vlm::kModeNone);
    EXPECT_EQ(makeAgent(R"({"mode": 2})")->mode, vlm::kModeSlave);
    EXPECT_EQ(makeAgent(R"({"mode": 3})")->mode, 3);
    LogCapture log;
    EXPECT_EQ(makeAgent(R"({"mode": "x"})")->mode, vlm::kModeHybrid);
    EXPECT_EQ(log.count("The configured \"mode\" is not a whole number; Hybrid applies\n"), 1);
}

TEST_F(AgentMode, FilterListFromTheConfiguration) {
    EXPECT_EQ(makeAgent(R"({"discovery": {"filtering": []}})")->interfaceHardwareIds, Texts{"0"});
    EXPECT_EQ(
        makeAgent(R"({"discovery": {"filtering": [{"hardware_id": "A"}, {"hardware_id": "B"}]}})")
            ->interfaceHardwareIds,
        (Texts{"A", "B"}));
}

// The start-up sequence, with one-second rounds shortened to 20 ms.
class Startup : public AgentFixture {
protected:
    Texts run(vlm::Agent& agent) {
        Texts shown;
        agent.runStartup([&](const QString& text) { shown.push_back(text.toStdString()); });
        return shown;
    }
    // A child that ends at once keeps the watcher short.
    void quickEngine(vlm::Agent& agent) { agent.engineProgram = "/bin/true"; }
};

TEST_F(Startup, NoneAndUnknownModesDoNothing) {
    for (const char* text : {R"({"mode": null})", R"({"mode": 3})", R"({"mode": 8})"}) {
        auto agent = makeAgent(text);
        LogCapture log;
        EXPECT_TRUE(run(*agent).empty());
        EXPECT_TRUE(log.lines().empty());
        EXPECT_EQ(agent->engineWatcher, nullptr);
    }
}

TEST_F(Startup, MasterStartsTheEngineAsMaster) {
    auto agent = makeAgent(R"({"mode": 1})");
    quickEngine(*agent);
    LogCapture log;
    EXPECT_EQ(run(*agent), Texts{"Master: Creating VELMOR local server in the network..."});
    Texts lines = log.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0],
              "Starting VELMOR Engine process as agent mode has been set to \"Master\"\n");
    EXPECT_EQ(lines[1], "Engine process has started\n");
}

TEST_F(Startup, SlaveWithoutServerNotifiesOnceAndStartsNothing) {
    auto agent = makeAgent(R"({"mode": 2})");
    vlm::test::RecordingListener second;
    agent->addListener(&second);
    LogCapture log;
    EXPECT_EQ(run(*agent), Texts{"Slave: Looking for VELMOR Server in the network..."});
    EXPECT_EQ(listener.calls(), Texts{"notification Could not find VELMOR server in the network"});
    EXPECT_EQ(second.calls(), listener.calls());
    EXPECT_EQ(log.lines(), (Texts{"Looking for VELMOR Engine in the network...\n",
                                  "Could not find VELMOR engine in the network\n"}));
    EXPECT_EQ(agent->engineWatcher, nullptr);
}

TEST_F(Startup, HybridWithoutServerStartsItsOwnEngineOnce) {
    auto agent = makeAgent("{}");
    quickEngine(*agent);
    LogCapture log;
    EXPECT_EQ(run(*agent), (Texts{"Hybrid: Looking for VELMOR Server in the network...",
                                  "Starting VELMOR local server. Please wait..."}));
    EXPECT_EQ(
        log.count("Starting VELMOR Engine process as agent mode has been set to \"Hybrid\"\n"), 1);
    EXPECT_EQ(log.count("Engine process has started\n"), 1);
    EXPECT_TRUE(listener.calls().empty() || listener.calls() == Texts{"engine died"});
}

TEST_F(Startup, AttachedServerStillKeepsTheSplashFiveRounds) {
    auto agent = makeAgent(R"({"mode": 2})");
    agent->attachedServer = "10.0.0.5:8080";
    auto started = std::chrono::steady_clock::now();
    Texts shown = run(*agent);
    EXPECT_GE(std::chrono::steady_clock::now() - started, 5 * agent->timing.startupRound);
    ASSERT_EQ(shown.size(), 6u);
    for (std::size_t i = 1; i < shown.size(); ++i)
        EXPECT_EQ(shown[i], "Connected to VELMOR server. Please wait...");
}

TEST_F(Startup, HybridGivesUpAfterSixteenRounds) {
    auto agent = makeAgent("{}");
    quickEngine(*agent);
    auto started = std::chrono::steady_clock::now();
    run(*agent);
    EXPECT_GE(std::chrono::steady_clock::now() - started, 16 * agent->timing.startupRound);
}

class ConfigurationSetters : public AgentFixture {};

TEST_F(ConfigurationSetters, StoreModeComparesWithTheRunningMode) {
    auto agent = makeAgent(R"({"mode": 2})");
    EXPECT_FALSE(agent->storeMode(2));
    EXPECT_TRUE(agent->storeMode(1));
    EXPECT_NE(savedConfig().find(R"("mode":1)"), std::string::npos) << savedConfig();
    // The running mode is unchanged, so storing it again writes again.
    EXPECT_EQ(agent->mode, 2);
    EXPECT_FALSE(agent->storeMode(2));
    EXPECT_TRUE(agent->storeMode(4));
}

TEST_F(ConfigurationSetters, WebServerAddress) {
    auto agent = makeAgent("{}");
    EXPECT_FALSE(agent->setWebServerAddress(""));
    EXPECT_TRUE(agent->setWebServerAddress("192.168.10.5"));
    EXPECT_NE(savedConfig().find(R"("server":{"ip":"192.168.10.5"})"), std::string::npos);
    EXPECT_FALSE(agent->setWebServerAddress("192.168.10.5"));
    EXPECT_TRUE(agent->setWebServerAddress(""));
    EXPECT_NE(savedConfig().find(R"("server":{"ip":""})"), std::string::npos);
}

TEST_F(ConfigurationSetters, PluginEntriesReplaceTheWholeList) {
    auto agent = makeAgent("{}");
    agent->setPluginEntries({{"a.dll", "First \"one\"", true}, {"b.dll", "", false}});
    std::string saved = savedConfig();
    EXPECT_NE(saved.find(R"("plugins":[{"name":"a.dll","descr":"First \"one\"","enabled":true},)"
                         R"({"name":"b.dll","descr":"","enabled":false}])"),
              std::string::npos)
        << saved;
}

TEST_F(ConfigurationSetters, WriterRepairsARootThatIsNotAnObject) {
    auto agent = makeAgent("[1, 2]");
    ::testing::internal::CaptureStdout();
    EXPECT_TRUE(agent->storeMode(1));
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(savedConfig(), R"({"mode":1})");
}

TEST_F(ConfigurationSetters, ASetterThatCannotWriteChangesNothing) {
    auto agent = makeAgent(R"({"mode": 2, "server": {"ip": "10.0.0.5"}})");
    config.save();
    const std::string before = savedConfig();
    ::testing::internal::CaptureStdout();
    {
        ReadOnlyFolder readOnly(appData.path());
        EXPECT_FALSE(agent->storeMode(1));
        EXPECT_FALSE(agent->setWebServerAddress("10.0.0.6"));
        EXPECT_FALSE(agent->setPluginEntries({{"a.dll", "A", true}}));
        EXPECT_FALSE(agent->applyInterfaceFilters({"AA:BB"}));
    }
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(config.failedSaves(), 4u);
    EXPECT_EQ(savedConfig(), before);
    // What the program reads back is what the file holds.
    EXPECT_EQ(vlm::agentModeFrom(config.document.get()), 2);
    EXPECT_EQ(vlm::json::findPath(config.document.get(), {"server", "ip"})->GetString(),
              std::string("10.0.0.5"));
    EXPECT_EQ(vlm::interfaceHardwareIdsFrom(config.document.get()), std::vector<std::string>{"0"});
    EXPECT_EQ((*config.document)["plugins"].Size(), 10u);
    // The setters compare with what is stored, so the same change is offered again.
    EXPECT_TRUE(agent->setWebServerAddress("10.0.0.6"));
}

}  // namespace
