// The agent's rules with the zeroconf library and the splash left out: start-up by mode,
// attachment, the engine child's supervision, the endpoint probe.

#include <signal.h>
#include <sys/stat.h>

#include <QString>
#include <future>
#include <sstream>

#include "Agent/BrowserListener.h"
#include "Agent/EndpointProbe.h"
#include "AgentTestSupport.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::AgentFixture;
using Texts = std::vector<std::string>;

// What the user and the log see, in order: "show" texts, log lines, listener calls.
const std::string kLook = "Looking for VELMOR Engine in the network...\n",
                  kNone = "Could not find VELMOR engine in the network\n",
                  kStarted = "Engine process has started\n", kDied = "Engine process died\n",
                  kCon = "show Connected to VELMOR server. Please wait...",
                  kSlave = "show Slave: Looking for VELMOR Server in the network...",
                  kHybrid = "show Hybrid: Looking for VELMOR Server in the network...",
                  kTold = "notification Could not find VELMOR server in the network",
                  kLocal = "show Starting VELMOR local server. Please wait...",
                  kAsHybrid =
                      "Starting VELMOR Engine process as agent mode has been set to \"Hybrid\"\n";

// Faults: a wrong text, log line or launch per mode; attachment accepted before round 4 or
// after the rounds run out; Hybrid's engine started more than once; Slave's notice missing.
struct StartupCase {
    int mode;
    int serverRound;  // the round during which a server is attached; -1: never
    int rounds;       // rounds waited until the sequence ended
    Texts trace;
};
class Startup : public AgentFixture, public ::testing::WithParamInterface<StartupCase> {};

TEST_P(Startup, ShowsLogsLaunchesAndEndsAtItsRound) {
    const StartupCase& c = GetParam();
    vlm::test::LogCapture trace;  // outlives the agent, whose engine watcher reports to it
    listener.also = &trace;
    // Absent means Hybrid, null means none.
    auto agent = makeAgent(c.mode == 4   ? "{}"
                           : c.mode == 0 ? R"({"mode": null})"
                                         : "{\"mode\": " + std::to_string(c.mode) + "}");
    agent->engineProgram = "/bin/true";
    int rounds = 0;
    agent->timing.sleep = [&](std::chrono::milliseconds) {
        if (rounds++ == c.serverRound) {
            std::lock_guard<std::mutex> lock(agent->mutex);
            agent->attachedServer = "10.0.0.5:80";
        }
    };
    agent->runStartup([&](const QString& text) { trace.record("show " + text.toStdString()); });
    Texts lines = trace.lines();
    lines.erase(std::remove(lines.begin(), lines.end(), kDied), lines.end());
    lines.erase(std::remove(lines.begin(), lines.end(), "engine died"), lines.end());
    EXPECT_EQ(lines, c.trace);
    EXPECT_EQ(rounds, c.rounds);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(ModeAndServerRound, Startup, ::testing::ValuesIn(std::vector<StartupCase>{
    {0, -1, 0, {}},
    {3, 0, 0, {}},
    {1, -1, 1, {"show Master: Creating VELMOR local server in the network...",
                "Starting VELMOR Engine process as agent mode has been set to \"Master\"\n", kStarted}},
    {2, -1, 4, {kLook, kSlave, kNone, kTold}},
    {2, 0, 5, {kLook, kSlave, kCon, kCon, kCon, kCon, kCon}},
    {2, 3, 5, {kLook, kSlave, kCon, kCon}},
    {2, 4, 4, {kLook, kSlave, kNone, kTold}},
    {4, -1, 16, {kLook, kHybrid, kNone, kAsHybrid, kLocal, kStarted}},
    {4, 2, 5, {kLook, kHybrid, kCon, kCon, kCon}},
    {4, 6, 7, {kLook, kHybrid, kNone, kAsHybrid, kLocal, kStarted, kCon}},
    {4, 15, 16, {kLook, kHybrid, kNone, kAsHybrid, kLocal, kStarted, kCon}}}),
    [](const auto& info) { const int round = info.param.serverRound;
        return "Mode" + std::to_string(info.param.mode) + (round < 0 ? "Never" : "Round" + std::to_string(round)); });
// clang-format on

// Announcements in ("+name address port txt...", "-name", "=address..." for the addresses
// this host holds now, the probe having said 10.0.0.1); log lines and listener calls out, as
// "A endpoint" (attached), "D endpoint" (detached), "I endpoint" (ignored: already attached),
// "M endpoint" (ignored: we are the master).
struct AttachCase {
    const char* name;
    int mode;
    Texts steps;
    Texts trace;
};
class Attachment : public AgentFixture, public ::testing::WithParamInterface<AttachCase> {};

TEST_P(Attachment, FollowsTheRules) {
    const AttachCase& c = GetParam();
    auto agent = makeAgent("{\"mode\": " + std::to_string(c.mode) + "}");
    Texts hostAddresses, expected;
    vlm::Agent::BrowserListener browser(*agent, "10.0.0.1", [&] { return hostAddresses; });
    vlm::test::LogCapture trace;
    listener.also = &trace;
    for (const std::string& step : c.steps) {
        std::istringstream words(step.substr(1));
        std::string name, address, entry;
        int port = 0;
        if (step[0] == '=') {
            for (hostAddresses.clear(); words >> address;)
                hostAddresses.push_back(address);
        } else if (words >> name >> address >> port; step[0] == '-') {
            browser.remove(2, name.c_str(), "_http._tcp.");
        } else {
            Texts txt;
            while (words >> entry)
                txt.push_back(entry);
            browser.add(2, name.c_str(), "_http._tcp.", "h.local.", address.c_str(),
                        static_cast<std::uint16_t>(port), txt);
        }
    }
    const std::string kBusy = " because it is not the master and we are already attached\n";
    for (const std::string& line : c.trace) {
        const std::string at = line.substr(2);
        if (line[0] == 'A')
            expected.insert(expected.end(), {"Attached to " + at + "\n", "attached " + at});
        else if (line[0] == 'D')
            expected.insert(expected.end(), {"Detached from " + at + "\n", "detached " + at});
        else
            expected.push_back("Ignored VELMOR at " + at +
                               (line[0] == 'M' ? " because we are the master\n" : kBusy));
    }
    EXPECT_EQ(trace.lines(), expected);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Rules, Attachment, ::testing::ValuesIn(std::vector<AttachCase>{
    {"FirstKeptNextTakesOverLastDetaches", 2,
     {"+_velmor_a 10.0.0.2 80 path=/", "+_velmor_b 10.0.0.3 80 master:1", "-_velmor_a",
      "-_velmor_x", "-_velmor_b", "+_velmor_a 10.0.0.7 80"},
     {"A 10.0.0.2:80", "I 10.0.0.3:80", "A 10.0.0.3:80", "D 10.0.0.3:80", "A 10.0.0.7:80"}},
    // A second announcement under a known name keeps the first record (b is no master).
    {"FirstLeftThenEveryMasterInNameOrder", 4,
     {"+_velmor_z 10.0.0.9 80", "+_velmor_c 10.0.0.4 80 master:yes",
      "+_velmor_a 10.0.0.2 80 x=1 master:", "+_velmor_b 10.0.0.3 80",
      "+_velmor_d 10.0.0.5 80 MASTER:1 master", "+_velmor_b 10.0.0.6 81 master:1", "-_velmor_z"},
     {"A 10.0.0.9:80", "I 10.0.0.4:80", "I 10.0.0.2:80", "I 10.0.0.3:80", "I 10.0.0.5:80",
      "I 10.0.0.6:81", "A 10.0.0.2:80", "A 10.0.0.4:80"}},
    {"OnlyNamesBeginningWithThePrefix", 4,
     {"+x_velmor 10.0.0.2 80", "+_VELMOR_a 10.0.0.2 80", "+_velmo 10.0.0.2 80",
      "+_velmor 10.0.0.3 80", "-x_velmor"},
     {"A 10.0.0.3:80"}},
    {"MasterTakesOnlyItsOwnServerButAnyOnRemoval", 1,
     {"+_velmor_other 10.0.0.2 80 master:1", "+_velmor_own 10.0.0.1 80", "-_velmor_own"},
     {"M 10.0.0.2:80", "A 10.0.0.1:80", "A 10.0.0.2:80"}},
    // The probe ran before the network was up; the address came later.
    {"MasterKnowsAnAddressThisHostGainedAfterStart", 1,
     {"+_velmor_own 10.0.0.8 80", "=127.0.0.1 10.0.0.8", "+_velmor_own 10.0.0.8 80"},
     {"M 10.0.0.8:80", "A 10.0.0.8:80"}}}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

// Faults: wrong child arguments; a death seen only at the next 3 s check, or not at all; a pid
// left set; a failed launch never reported; a relaunch that does not wait for the old child;
// a listener called after it has left (the tray destroyed at quit while the watcher runs on),
// or left while a call into it is under way.
TEST_F(AgentFixture, EngineLifecycle) {
    auto agent = makeAgent();
    agent->timing.watcherInterval = vlm::AgentTiming{}.watcherInterval;
    const std::string script = appData.file("engine.sh"), args = appData.file("args");
    vlm::test::writeFile(script, "#!/bin/sh\necho \"$@\" >> '" + args + "'\nexec sleep 60\n");
    chmod(script.c_str(), 0755);
    agent->engineProgram = script;
    const std::string apid = "--server 1 --apid " + std::to_string(getpid());
    auto argsAre = [&](const std::string& expected) {
        EXPECT_TRUE(vlm::test::eventually([&] { return vlm::test::readFile(args) == expected; }));
    };
    vlm::test::LogCapture log;
    auto kill = [&](std::int64_t pid, int deaths) {
        ASSERT_GT(pid, 0);
        const auto killed = std::chrono::steady_clock::now();
        ::kill(static_cast<pid_t>(pid), SIGKILL);
        ASSERT_TRUE(vlm::test::eventually([&] { return listener.count("engine died") == deaths; }));
        // Well inside the 3 s check: the watcher wakes at the child's end.
        EXPECT_LT(std::chrono::steady_clock::now() - killed, 2s);
    };
    agent->startEngineProcess(true);
    argsAre(apid + " --master 1\n");
    kill(agent->enginePid, 1);
    EXPECT_EQ(agent->enginePid.load(), 0);
    std::remove(args.c_str());
    agent->startEngineProcess(false);
    const std::int64_t second = agent->enginePid;
    auto third = std::async(std::launch::async, [&] { agent->startEngineProcess(false); });
    EXPECT_EQ(third.wait_for(300ms), std::future_status::timeout);
    kill(second, 2);
    third.get();
    argsAre(apid + "\n" + apid + "\n");
    struct Slow : vlm::test::RecordingListener {
        void onEngineDied() override {
            record("in");
            std::this_thread::sleep_for(200ms);
            record("out");
        }
    } slow;
    agent->addListener(&slow);
    kill(agent->enginePid, 3);
    agent->removeListener(&slow);
    EXPECT_EQ(slow.calls(), (Texts{"in", "out"}));
    agent->timing.watcherInterval = 100ms;
    agent->engineProgram = appData.file("missing");
    agent->startEngineProcess(false);
    EXPECT_TRUE(vlm::test::eventually([&] { return listener.count("engine died") == 4; }));
    EXPECT_EQ(slow.calls().size(), 2u);
    EXPECT_EQ(agent->enginePid.load(), 0);
    EXPECT_EQ(log.lines(), (Texts{kStarted, kDied, kStarted, kStarted, kDied, kDied,
                                  "Failed to create engine process\n", kDied}));
}

// Faults: a configured address ignored or probed over; a loopback answer taken as this
// machine's address (Debian puts the host name on 127.0.1.1).
TEST(EndpointProbe, ConfiguredThenRoutedNeverLoopbackByName) {
    vlm::json::Document config;
    vlm::json::parseString(config, R"({"server": {"ip": "192.168.10.5"}})");
    EXPECT_EQ(vlm::probeLocalAddress(&config), "192.168.10.5");
    config["server"]["ip"].SetString("");
    EXPECT_EQ(vlm::probeLocalAddress(&config, "127.0.0.2"), "127.0.0.1");
    for (const char* unroutable : {"255.255.255.255", "not an address"})
        EXPECT_NE(vlm::probeLocalAddress(&config, unroutable).rfind("127.", 0), 0u) << unroutable;
}

}  // namespace
