#include <signal.h>

#include "AgentFixture.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::AgentFixture;
using vlm::test::LogCapture;

class EngineSupervisor : public AgentFixture {
protected:
    // A stand-in child that records its arguments and waits to be killed.
    std::string recordingEngine() {
        std::string script = appData.file("engine.sh");
        vlm::test::writeFile(
            script, "#!/bin/sh\necho \"$@\" > '" + appData.file("args") + "'\nexec sleep 60\n");
        chmod(script.c_str(), 0755);
        return script;
    }
    std::string arguments() {
        for (int i = 0; i < 300 && !vlm::test::exists(appData.file("args")); ++i)
            std::this_thread::sleep_for(10ms);
        std::this_thread::sleep_for(20ms);
        return vlm::test::readFile(appData.file("args"));
    }
};

TEST_F(EngineSupervisor, ChildArgumentsNameTheAgentAndTheMasterFlag) {
    auto agent = makeAgent();
    agent->engineProgram = recordingEngine();
    agent->startEngineProcess(true);
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(arguments(), "--server 1 --apid " + pid + " --master 1\n");
    ::kill(static_cast<pid_t>(agent->enginePid.load()), SIGKILL);
    ASSERT_TRUE(listener.waitFor("engine died", 5s));

    std::remove(appData.file("args").c_str());
    agent->startEngineProcess(false);
    EXPECT_EQ(arguments(), "--server 1 --apid " + pid + "\n");
    ::kill(static_cast<pid_t>(agent->enginePid.load()), SIGKILL);
    ASSERT_TRUE(listener.waitFor("engine died", 5s));
}

TEST_F(EngineSupervisor, DeathIsSeenWithinOneWatchInterval) {
    auto agent = makeAgent();
    agent->engineProgram = recordingEngine();
    LogCapture log;
    agent->startEngineProcess(false);
    ASSERT_GT(agent->enginePid.load(), 0);
    arguments();
    EXPECT_TRUE(vlm::Agent::isProcessAlive(static_cast<std::uint32_t>(agent->enginePid.load())));
    auto killed = std::chrono::steady_clock::now();
    ::kill(static_cast<pid_t>(agent->enginePid.load()), SIGKILL);
    ASSERT_TRUE(listener.waitFor("engine died", 5s));
    EXPECT_LE(std::chrono::steady_clock::now() - killed, agent->timing.watcherInterval + 100ms);
    EXPECT_EQ(agent->enginePid.load(), 0);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Engine process has started\n", "Engine process died\n"}));
}

TEST_F(EngineSupervisor, FailedLaunchIsReportedAsADeath) {
    auto agent = makeAgent();
    agent->engineProgram = appData.file("no-such-program");
    LogCapture log;
    auto started = std::chrono::steady_clock::now();
    agent->startEngineProcess(false);
    ASSERT_TRUE(listener.waitFor("engine died", 5s));
    EXPECT_GE(std::chrono::steady_clock::now() - started, agent->timing.watcherInterval);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Failed to create engine process\n",
                                                     "Engine process died\n"}));
}

TEST_F(EngineSupervisor, NewLaunchWaitsForThePreviousChildToDie) {
    auto agent = makeAgent();
    agent->engineProgram = recordingEngine();
    agent->startEngineProcess(false);
    arguments();
    const auto first = static_cast<pid_t>(agent->enginePid.load());
    std::thread killer([first] {
        std::this_thread::sleep_for(300ms);
        ::kill(first, SIGKILL);
    });
    auto started = std::chrono::steady_clock::now();
    agent->startEngineProcess(false);
    EXPECT_GE(std::chrono::steady_clock::now() - started, 300ms);
    killer.join();
    EXPECT_EQ(listener.calls(), std::vector<std::string>{"engine died"});
    ::kill(static_cast<pid_t>(agent->enginePid.load()), SIGKILL);
    ASSERT_TRUE(listener.waitFor("engine died", 5s));
}

}  // namespace
