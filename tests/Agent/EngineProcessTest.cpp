// The engine child's supervision with the product's own 3 s watcher and real processes: the
// agent's process dying, the child dying, a child that cannot start.

#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "AgentFixture.h"
#include "network/AgentOnHost.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using vlm::test::AgentFixture;
using vlm::test::Child;
using vlm::test::LogCapture;
using vlm::test::TempDir;

// What the watcher may add to its interval: one alive check and the listener call.
constexpr auto kWatchSlack = 100ms;

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    while (!done()) {
        if (Clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

class EngineProcess : public AgentFixture {
protected:
    std::unique_ptr<vlm::Agent> productAgent() {
        auto agent = makeAgent();
        agent->timing = vlm::AgentTiming{};
        return agent;
    }
    // A child that takes any arguments and lives until killed.
    std::string sleeper() {
        std::string script = appData.file("engine.sh");
        vlm::test::writeFile(script, "#!/bin/sh\nexec sleep 60\n");
        chmod(script.c_str(), 0755);
        return script;
    }
};

TEST_F(EngineProcess, KilledChildIsReportedWithinTheWatchInterval) {
    auto agent = productAgent();
    agent->engineProgram = sleeper();
    LogCapture log;
    agent->startEngineProcess(false);
    const auto pid = static_cast<pid_t>(agent->enginePid.load());
    ASSERT_GT(pid, 0);
    // Killed somewhere inside a watch interval, not right at its start.
    std::this_thread::sleep_for(700ms);
    ASSERT_TRUE(vlm::Agent::isProcessAlive(static_cast<std::uint32_t>(pid)));
    EXPECT_TRUE(listener.calls().empty());
    const auto killed = Clock::now();
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    ASSERT_TRUE(listener.waitFor("engine died", 5s));
    EXPECT_LE(Clock::now() - killed, agent->timing.watcherInterval + kWatchSlack);
    EXPECT_EQ(agent->enginePid.load(), 0);
    EXPECT_EQ(listener.calls(), std::vector<std::string>{"engine died"});
    EXPECT_EQ(log.count("Engine process died\n"), 1);
}

TEST_F(EngineProcess, ChildThatCannotStartDiesOneWatchIntervalLater) {
    auto agent = productAgent();
    agent->engineProgram = appData.file("missing/VELMOR");
    LogCapture log;
    const auto started = Clock::now();
    agent->startEngineProcess(true);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Failed to create engine process\n"});
    EXPECT_EQ(agent->enginePid.load(), 0);
    ASSERT_TRUE(listener.waitFor("engine died", 5s));
    const auto elapsed = Clock::now() - started;
    EXPECT_GE(elapsed, agent->timing.watcherInterval);
    EXPECT_LE(elapsed, agent->timing.watcherInterval + kWatchSlack);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Failed to create engine process\n",
                                                     "Engine process died\n"}));
}

// The real engine-server role as the child of an agent process that is then killed: the child
// must notice on its own, since nobody stops it.
TEST(EngineChildOfAKilledAgent, EndsItselfWithinElevenSeconds) {
    TempDir dir;
    const unsigned short port = vlm::test::freeLoopbackPort();
    std::unique_ptr<Child> tool = vlm::test::startLocalAgentTool(dir, port);
    Child& agent = *tool;
    ASSERT_TRUE(agent.waitForOutput("@ready", 10s)) << agent.output() << agent.errors();
    agent.kill(SIGHUP);
    ASSERT_TRUE(agent.waitForOutput("@launched", 10s)) << agent.output();
    std::string out = agent.output();
    std::istringstream line(out.substr(out.find("@launched")));
    std::string kind;
    long long at = 0;
    pid_t engine = 0;
    line >> kind >> at >> engine;
    ASSERT_GT(engine, 0) << out;
    ASSERT_TRUE(vlm::test::waitForEngine(port, 10s)) << agent.output();
    // The role watches its parent once its engine has started, announcement tried included;
    // an agent killed before would be missed at once, which proves nothing.
    ASSERT_TRUE(agent.waitForOutput("not announced", 10s)) << agent.output();
    std::this_thread::sleep_for(100ms);

    EXPECT_EQ(agent.errors().find("Sanitizer"), std::string::npos) << agent.errors();
    agent.kill(SIGKILL);
    ASSERT_TRUE(agent.wait(5s).has_value());
    const auto died = Clock::now();
    EXPECT_TRUE(vlm::Agent::isProcessAlive(static_cast<std::uint32_t>(engine)));
    EXPECT_TRUE(eventually([&] { return !vlm::Agent::isProcessAlive(engine); }, 12s));
    EXPECT_LE(Clock::now() - died, 11s);
    EXPECT_EQ(
        vlm::test::httpRequest("POST", port, "/get", R"({"Path": "$"})", "anon:anon", 1s).status,
        0);
    if (vlm::Agent::isProcessAlive(static_cast<std::uint32_t>(engine)))
        ::kill(engine, SIGKILL);
}

}  // namespace
