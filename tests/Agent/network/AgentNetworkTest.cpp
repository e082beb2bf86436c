// The agent end to end on test hosts: real Avahi daemons, the real DNS-SD binding, the engine
// stand-in in its server role, the agent's start-up sequence with shortened rounds.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "AgentOnHost.h"

using namespace std::chrono_literals;
using vlm::test::AgentOnHost;
using vlm::test::EngineOnHost;
using vlm::test::TestNet;

namespace {

// Shortened start-up rounds: the fallback comes after 4 of them, the sequence ends after 16.
constexpr int kRoundMs = 250;
const std::string kRound = std::to_string(kRoundMs);

std::string endpoint(const TestNet& net, const std::string& host, int port) {
    return net.address(host) + ":" + std::to_string(port);
}

class AgentNetwork : public ::testing::Test {
protected:
    void up(const std::vector<std::string>& hosts) {
        net_ = std::make_unique<TestNet>(hosts);
        ASSERT_TRUE(net_->ok()) << net_->error();
    }
    void TearDown() override {
        for (const auto& agent : agents_)
            EXPECT_EQ(agent->sanitizerReports(), "");
        // Programs on the hosts end before the hosts go.
        agents_.clear();
        engines_.clear();
        net_.reset();
    }

    EngineOnHost& engine(const std::string& host, int port, bool master) {
        engines_.push_back(std::make_unique<EngineOnHost>(*net_, host, port, master));
        EXPECT_TRUE(engines_.back()->announced()) << engines_.back()->log();
        return *engines_.back();
    }
    AgentOnHost& agent(const std::string& host, const std::string& config,
                       std::vector<std::string> args, int enginePort = 18090) {
        args.insert(args.end(), {"--round", kRound, "--engine", vlm::test::velmorPath()});
        agents_.push_back(std::make_unique<AgentOnHost>(*net_, host, config, args, enginePort));
        EXPECT_TRUE(agents_.back()->waitFor("ready", {}, 15s)) << agents_.back()->log();
        return *agents_.back();
    }

    // The hardware address of host's eth0 as Qt writes it.
    std::string hardwareAddress(const std::string& host) {
        std::string output;
        net_->run(host, "cat /sys/class/net/eth0/address", &output);
        output.erase(output.find_last_not_of("\n") + 1);
        std::transform(output.begin(), output.end(), output.begin(),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        return output;
    }

    std::unique_ptr<TestNet> net_;
    std::vector<std::unique_ptr<EngineOnHost>> engines_;
    std::vector<std::unique_ptr<AgentOnHost>> agents_;
};

TEST_F(AgentNetwork, SlaveAttachesToTheEngineOnAnotherHostAndTalksToIt) {
    up({"a", "b"});
    engine("a", 18080, false);
    const std::string id = hardwareAddress("b");
    AgentOnHost& slave = agent(
        "b", R"({"mode": 2, "discovery": {"filtering": [{"hardware_id": ")" + id + R"("}]}})", {});
    const std::string server = endpoint(*net_, "a", 18080);
    ASSERT_TRUE(slave.waitFor("attached", server)) << slave.log();
    EXPECT_TRUE(slave.logHas("Attached to " + server + "\n")) << slave.log();
    ASSERT_TRUE(slave.waitFor("startup-done")) << slave.log();
    EXPECT_TRUE(slave.events("notification").empty()) << slave.log();
    EXPECT_EQ(slave.events("show").front().text,
              "Slave: Looking for VELMOR Server in the network...");
    EXPECT_EQ(slave.events("show").back().text, "Connected to VELMOR server. Please wait...");
    EXPECT_EQ(slave.lastText("engine"), "");

    slave.signal(SIGUSR1);
    ASSERT_TRUE(slave.waitFor("query")) << slave.log();
    const std::string document = slave.lastText("query");
    EXPECT_NE(document.find(R"("Config":{)"), std::string::npos) << document;
    EXPECT_NE(document.find(R"("Plugins":[)"), std::string::npos) << document;

    // The filters of B's own interface reach the server on A.
    slave.signal(SIGUSR2);
    ASSERT_TRUE(slave.waitFor("filters-sent")) << slave.log();
    const std::string inForce =
        R"([{"Ip":")" + net_->address("b") + R"(","Mask":"255.255.255.0"}])";
    EXPECT_NE(engines_[0]->log().find("Engine interface filters changed: " + inForce),
              std::string::npos)
        << engines_[0]->log();
    slave.signal(SIGUSR1);
    ASSERT_TRUE(vlm::test::eventually([&] { return slave.events("query").size() == 2; }));
    EXPECT_NE(slave.lastText("query").find(R"("InterfaceFilters":)" + inForce), std::string::npos)
        << slave.lastText("query");
}

TEST_F(AgentNetwork, HybridAgentAloneStartsItsOwnEngineAndAttachesToIt) {
    // Host a stays empty: the agent on b is alone.
    up({"a", "b"});
    AgentOnHost& hybrid = agent("b", "{}", {}, 18081);
    auto launched = hybrid.waitFor("engine");
    ASSERT_TRUE(launched) << hybrid.log();
    const auto ready = hybrid.waitFor("ready");
    // The fourth round passed without a server first.
    EXPECT_GE(launched->at - ready->at, 4 * std::chrono::milliseconds(kRoundMs));
    EXPECT_TRUE(hybrid.logHas("Could not find VELMOR engine in the network\n"));
    EXPECT_TRUE(
        hybrid.logHas("Starting VELMOR Engine process as agent mode has been set to \"Hybrid\"\n"));
    EXPECT_TRUE(hybrid.logHas("Engine process has started\n"));

    // Its own engine is found through DNS-SD like any other.
    ASSERT_TRUE(hybrid.waitFor("attached", endpoint(*net_, "b", 18081))) << hybrid.log();
    EXPECT_EQ(hybrid.events("attached").size(), 1u);
    ASSERT_TRUE(hybrid.waitFor("startup-done")) << hybrid.log();
    EXPECT_TRUE(hybrid.events("engine-died").empty());
    hybrid.signal(SIGUSR1);
    ASSERT_TRUE(hybrid.waitFor("query")) << hybrid.log();
    EXPECT_NE(hybrid.lastText("query").find(R"("Config":{)"), std::string::npos);
}

TEST_F(AgentNetwork, MasterAttachesToItsOwnEngineAndIgnoresAForeignOne) {
    up({"a", "b"});
    engine("a", 18082, true);
    // A route for the endpoint probe to find B's own address (connecting UDP sends nothing).
    ASSERT_EQ(net_->run("b", "ip route add default dev eth0"), 0);
    AgentOnHost& master = agent("b", R"({"mode": 1})", {"--master-wait", "500"}, 18083);
    ASSERT_TRUE(master.waitFor("attached", endpoint(*net_, "b", 18083))) << master.log();
    EXPECT_TRUE(master.logHas("Ignored VELMOR at " + endpoint(*net_, "a", 18082) +
                              " because we are the master\n"))
        << master.log();
    EXPECT_EQ(master.events("attached").size(), 1u);
    EXPECT_EQ(master.events("show").front().text,
              "Master: Creating VELMOR local server in the network...");
    EXPECT_TRUE(
        master.logHas("Starting VELMOR Engine process as agent mode has been set to \"Master\"\n"));
}

TEST_F(AgentNetwork, RemovingTheAttachedServerMovesToTheNextThenDetaches) {
    up({"a", "b", "c"});
    EngineOnHost& first = engine("a", 18084, false);
    AgentOnHost& slave = agent("b", R"({"mode": 2})", {});
    const std::string a = endpoint(*net_, "a", 18084);
    const std::string c = endpoint(*net_, "c", 18085);
    ASSERT_TRUE(slave.waitFor("attached", a)) << slave.log();
    EngineOnHost& second = engine("c", 18085, true);
    ASSERT_TRUE(vlm::test::eventually([&] {
        return slave.logHas("Ignored VELMOR at " + c +
                            " because it is not the master and we are already attached\n");
    })) << slave.log();

    first.kill();
    ASSERT_TRUE(slave.waitFor("attached", c)) << slave.log();
    EXPECT_TRUE(slave.events("detached").empty());

    second.kill();
    ASSERT_TRUE(slave.waitFor("detached", c)) << slave.log();
    EXPECT_TRUE(slave.logHas("Detached from " + c + "\n"));
    EXPECT_EQ(slave.events("attached").size(), 2u);
}

}  // namespace
