// The agent's rules with the zeroconf library and the splash left out: start-up by mode,
// attachment, the engine child's supervision, the endpoint probe, the configuration setters.

#include <signal.h>
#include <sys/stat.h>

#include <QString>
#include <future>
#include <sstream>

#include "Agent/BrowserListener.h"
#include "Agent/EndpointProbe.h"
#include "AgentFixture.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::AgentFixture;
using vlm::test::LogCapture;
using Texts = std::vector<std::string>;

const std::string kLooking = "Looking for VELMOR Engine in the network...\n";
const std::string kNotFound = "Could not find VELMOR engine in the network\n";
const std::string kStarted = "Engine process has started\n";
const std::string kConnected = "Connected to VELMOR server. Please wait...";

// Faults: a wrong text, log line or launch per mode; attachment accepted before round 4 or
// after the rounds run out; Hybrid's engine started more than once; Slave's notice missing.
struct StartupCase {
    int mode;
    int serverRound;  // the round during which a server is attached; -1: never
    Texts shown;
    Texts log;
    int rounds;  // sleeps until the sequence ended
    bool notified;
};

class Startup : public AgentFixture, public ::testing::WithParamInterface<StartupCase> {};

TEST_P(Startup, ShowsLogsLaunchesAndEndsAtItsRound) {
    const StartupCase& c = GetParam();
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
    LogCapture log;
    Texts shown;
    EXPECT_EQ(agent->runStartup([&](const QString& text) { shown.push_back(text.toStdString()); }),
              0);
    Texts lines = log.lines();
    lines.erase(std::remove(lines.begin(), lines.end(), "Engine process died\n"), lines.end());
    EXPECT_EQ(shown, c.shown);
    EXPECT_EQ(lines, c.log);
    EXPECT_EQ(rounds, c.rounds);
    EXPECT_EQ(listener.count("notification Could not find VELMOR server in the network"),
              c.notified ? 1 : 0);
}

const std::string kSlave = "Slave: Looking for VELMOR Server in the network...";
const std::string kHybrid = "Hybrid: Looking for VELMOR Server in the network...";
const std::string kLocal = "Starting VELMOR local server. Please wait...";
const std::string kHybridLine =
    "Starting VELMOR Engine process as agent mode has been set to \"Hybrid\"\n";

INSTANTIATE_TEST_SUITE_P(
    ModeAndServerRound, Startup,
    ::testing::ValuesIn(std::vector<StartupCase>{
        {0, -1, {}, {}, 0, false},
        {3, 0, {}, {}, 0, false},
        {1,
         -1,
         {"Master: Creating VELMOR local server in the network..."},
         {"Starting VELMOR Engine process as agent mode has been set to \"Master\"\n", kStarted},
         1,
         false},
        {2, -1, {kSlave}, {kLooking, kNotFound}, 4, true},
        {2,
         0,
         {kSlave, kConnected, kConnected, kConnected, kConnected, kConnected},
         {kLooking},
         5,
         false},
        {2, 3, {kSlave, kConnected, kConnected}, {kLooking}, 5, false},
        {2, 4, {kSlave}, {kLooking, kNotFound}, 4, true},
        {4, -1, {kHybrid, kLocal}, {kLooking, kNotFound, kHybridLine, kStarted}, 16, false},
        {4, 2, {kHybrid, kConnected, kConnected, kConnected}, {kLooking}, 5, false},
        {4,
         6,
         {kHybrid, kLocal, kConnected},
         {kLooking, kNotFound, kHybridLine, kStarted},
         7,
         false},
        {4,
         15,
         {kHybrid, kLocal, kConnected},
         {kLooking, kNotFound, kHybridLine, kStarted},
         16,
         false}}),
    [](const auto& info) {
        return "Mode" + std::to_string(info.param.mode) + "Round" +
               std::to_string(info.param.serverRound + 1);
    });

// Announcements in ("+name address port txt...", "-name", "=address..." for this host's
// addresses now); listener calls and log lines out, then "name endpoint host mode".
struct AttachCase {
    const char* name;
    int mode;
    Texts steps;
    Texts calls;
    Texts log;
    std::string state;
};

class Attachment : public AgentFixture, public ::testing::WithParamInterface<AttachCase> {};

TEST_P(Attachment, FollowsTheRules) {
    const AttachCase& c = GetParam();
    auto agent = makeAgent("{\"mode\": " + std::to_string(c.mode) + "}");
    Texts hostAddresses;
    std::mutex addressesMutex;
    vlm::Agent::BrowserListener browser(*agent, "10.0.0.1", [&] {
        std::lock_guard<std::mutex> lock(addressesMutex);
        return hostAddresses;
    });
    LogCapture log;
    for (const std::string& step : c.steps) {
        std::istringstream words(step.substr(1));
        std::string name, address, entry;
        if (step[0] == '=') {
            std::lock_guard<std::mutex> lock(addressesMutex);
            for (hostAddresses.clear(); words >> address;)
                hostAddresses.push_back(address);
        } else if (step[0] == '-') {
            words >> name;
            browser.remove(2, name.c_str(), "_http._tcp.");
        } else {
            int port = 0;
            Texts txt;
            words >> name >> address >> port;
            while (words >> entry)
                txt.push_back(entry);
            browser.add(2, name.c_str(), "_http._tcp.", (name + ".local.").c_str(), address.c_str(),
                        static_cast<std::uint16_t>(port), txt);
        }
    }
    EXPECT_EQ(listener.calls(), c.calls);
    EXPECT_EQ(log.lines(), c.log);
    std::lock_guard<std::mutex> lock(agent->mutex);
    EXPECT_EQ(agent->attachedName + " " + agent->attachedServer + " " + agent->attachedHost + " " +
                  std::to_string(agent->attachedMode),
              c.state);
}

const std::string kIgnoredAttached = " because it is not the master and we are already attached\n";

INSTANTIATE_TEST_SUITE_P(
    Rules, Attachment,
    ::testing::ValuesIn(std::vector<AttachCase>{
        {"FirstKeptLaterMasterTakesOverOnRemovalLastDetaches",
         2,
         {"+_velmor_a 10.0.0.2 80 path=/", "+_velmor_b 10.0.0.3 80 master:1", "-_velmor_a",
          "-_velmor_x", "-_velmor_b", "+_velmor_a 10.0.0.7 80"},
         {"attached 10.0.0.2:80", "attached 10.0.0.3:80", "detached 10.0.0.3:80",
          "attached 10.0.0.7:80"},
         {"Attached to 10.0.0.2:80\n", "Ignored VELMOR at 10.0.0.3:80" + kIgnoredAttached,
          "Attached to 10.0.0.3:80\n", "Detached from 10.0.0.3:80\n", "Attached to 10.0.0.7:80\n"},
         "_velmor_a 10.0.0.7:80 _velmor_a.local. 4"},
        {"FirstLeftThenEveryMasterInNameOrder",
         4,
         {"+_velmor_z 10.0.0.9 80", "+_velmor_c 10.0.0.4 80 master:yes",
          "+_velmor_a 10.0.0.2 80 x=1 master:", "+_velmor_b 10.0.0.3 80",
          "+_velmor_d 10.0.0.5 80 MASTER:1 master", "+_velmor_b 10.0.0.6 81 master:1",
          "-_velmor_z"},
         {"attached 10.0.0.9:80", "attached 10.0.0.2:80", "attached 10.0.0.4:80"},
         {"Attached to 10.0.0.9:80\n", "Ignored VELMOR at 10.0.0.4:80" + kIgnoredAttached,
          "Ignored VELMOR at 10.0.0.2:80" + kIgnoredAttached,
          "Ignored VELMOR at 10.0.0.3:80" + kIgnoredAttached,
          "Ignored VELMOR at 10.0.0.5:80" + kIgnoredAttached,
          "Ignored VELMOR at 10.0.0.6:81" + kIgnoredAttached, "Attached to 10.0.0.2:80\n",
          "Attached to 10.0.0.4:80\n"},
         "_velmor_c 10.0.0.4:80 _velmor_c.local. 1"},
        {"OnlyNamesBeginningWithThePrefix",
         4,
         {"+x_velmor 10.0.0.2 80", "+_VELMOR_a 10.0.0.2 80", "+_velmo 10.0.0.2 80",
          "+_velmor 10.0.0.3 80", "-x_velmor"},
         {"attached 10.0.0.3:80"},
         {"Attached to 10.0.0.3:80\n"},
         "_velmor 10.0.0.3:80 _velmor.local. 4"},
        {"MasterTakesOnlyItsOwnServerButAnyOnRemoval",
         1,
         {"+_velmor_other 10.0.0.2 80 master:1", "+_velmor_own 10.0.0.1 80", "-_velmor_own"},
         {"attached 10.0.0.1:80", "attached 10.0.0.2:80"},
         {"Ignored VELMOR at 10.0.0.2:80 because we are the master\n", "Attached to 10.0.0.1:80\n",
          "Attached to 10.0.0.2:80\n"},
         "_velmor_other 10.0.0.2:80 _velmor_other.local. 1"},
        // The probe ran before the network was up; the address came later.
        {"MasterKnowsAnAddressThisHostGainedAfterStart",
         1,
         {"+_velmor_own 10.0.0.8 80", "=127.0.0.1 10.0.0.8", "+_velmor_own 10.0.0.8 80"},
         {"attached 10.0.0.8:80"},
         {"Ignored VELMOR at 10.0.0.8:80 because we are the master\n", "Attached to 10.0.0.8:80\n"},
         "_velmor_own 10.0.0.8:80 _velmor_own.local. 4"}}),
    [](const auto& info) { return std::string(info.param.name); });

// Faults: wrong child arguments; a death seen only at the next 3 s check, or not at all;
// a pid left set; a failed launch never reported; a relaunch that abandons the old watcher.
TEST_F(AgentFixture, EngineLifecycle) {
    auto agent = makeAgent();
    agent->timing.watcherInterval = vlm::AgentTiming{}.watcherInterval;
    const std::string script = appData.file("engine.sh"), args = appData.file("args");
    vlm::test::writeFile(script, "#!/bin/sh\necho \"$@\" >> '" + args + "'\nexec sleep 60\n");
    chmod(script.c_str(), 0755);
    agent->engineProgram = script;
    const std::string apid = "--server 1 --apid " + std::to_string(getpid()) + "\n";
    auto argsAre = [&](const std::string& expected) {
        EXPECT_TRUE(vlm::test::eventually([&] { return vlm::test::readFile(args) == expected; }))
            << vlm::test::readFile(args);
    };
    LogCapture log;
    auto kill = [&](std::int64_t pid, int deaths) {
        ASSERT_GT(pid, 0);
        const auto killed = std::chrono::steady_clock::now();
        ::kill(static_cast<pid_t>(pid), SIGKILL);
        ASSERT_TRUE(vlm::test::eventually([&] { return listener.count("engine died") == deaths; }));
        // Well inside the 3 s check: the watcher wakes at the child's end.
        EXPECT_LT(std::chrono::steady_clock::now() - killed, 2s);
    };
    agent->startEngineProcess(true);
    argsAre(apid.substr(0, apid.size() - 1) + " --master 1\n");
    kill(agent->enginePid, 1);
    EXPECT_EQ(agent->enginePid.load(), 0);
    std::remove(args.c_str());
    agent->startEngineProcess(false);
    const std::int64_t second = agent->enginePid;
    // A launch while a child lives waits for that child's end.
    auto third = std::async(std::launch::async, [&] { agent->startEngineProcess(false); });
    EXPECT_EQ(third.wait_for(300ms), std::future_status::timeout);
    kill(second, 2);
    third.get();
    argsAre(apid + apid);
    kill(agent->enginePid, 3);
    EXPECT_EQ(agent->enginePid.load(), 0);
    agent->timing.watcherInterval = 100ms;
    agent->engineProgram = appData.file("missing");
    agent->startEngineProcess(false);
    EXPECT_TRUE(vlm::test::eventually([&] { return listener.count("engine died") == 4; }));
    EXPECT_EQ(log.lines(), (Texts{kStarted, "Engine process died\n", kStarted, kStarted,
                                  "Engine process died\n", "Engine process died\n",
                                  "Failed to create engine process\n", "Engine process died\n"}));
}

// Fault: a listener called after it has left (the tray destroyed at quit while the agent's
// threads run on), or left while a call into it is still under way.
TEST_F(AgentFixture, RemovedListenerIsNeverCalledAgain) {
    struct Slow : vlm::test::RecordingListener {
        void onEngineDied() override {
            record("in");
            std::this_thread::sleep_for(200ms);
            record("out");
        }
    } slow;
    auto agent = makeAgent();
    agent->addListener(&slow);
    agent->engineProgram = appData.file("missing");
    agent->startEngineProcess(false);
    ASSERT_TRUE(slow.waitFor("in", 5s));
    agent->removeListener(&slow);
    EXPECT_EQ(slow.calls(), (Texts{"in", "out"}));
    agent->startEngineProcess(false);
    ASSERT_TRUE(vlm::test::eventually([&] { return listener.count("engine died") == 2; }));
    EXPECT_EQ(slow.calls().size(), 2u);
}

// Faults: a configured address ignored or probed over; a loopback answer taken as this
// machine's address (Debian puts the host name on 127.0.1.1).
TEST(EndpointProbe, ConfiguredThenRoutedNeverLoopbackByName) {
    vlm::json::Document configured, none;
    vlm::json::parseString(configured, R"({"server": {"ip": "192.168.10.5"}})");
    vlm::json::parseString(none, R"({"server": {"ip": ""}})");
    EXPECT_EQ(vlm::probeLocalAddress(&configured), "192.168.10.5");
    EXPECT_EQ(vlm::probeLocalAddress(&none, "127.0.0.2"), "127.0.0.1");
    for (const char* unroutable : {"255.255.255.255", "not an address"})
        EXPECT_NE(vlm::probeLocalAddress(&none, unroutable).rfind("127.", 0), 0u) << unroutable;
}

// Faults: a mode stored when it equals the running one; an address rewritten unchanged;
// plug-in entries out of order; a setter that half-writes when the file cannot be written.
TEST_F(AgentFixture, ConfigurationSetters) {
    auto agent = makeAgent(R"({"mode": 2})");
    EXPECT_FALSE(agent->storeMode(2));
    EXPECT_TRUE(agent->storeMode(1));
    EXPECT_FALSE(agent->setWebServerAddress(""));
    EXPECT_TRUE(agent->setWebServerAddress("192.168.10.5"));
    EXPECT_FALSE(agent->setWebServerAddress("192.168.10.5"));
    EXPECT_TRUE(agent->setPluginEntries({{"a.dll", "First \"one\"", true}, {"b.dll", "", false}}));
    EXPECT_TRUE(agent->applyInterfaceFilters({"AA:BB", "CC:DD"}));
    const std::string saved = savedConfig();
    for (
        const char* part :
        {R"("mode":1)", R"("server":{"ip":"192.168.10.5"})",
         R"("plugins":[{"name":"a.dll","descr":"First \"one\"","enabled":true},{"name":"b.dll","descr":"","enabled":false}])",
         R"("filtering":[{"hardware_id":"AA:BB"},{"hardware_id":"CC:DD"}])"})
        EXPECT_NE(saved.find(part), std::string::npos) << part << "\n" << saved;
    ::testing::internal::CaptureStdout();
    {
        vlm::test::ReadOnlyFolder readOnly(appData.path());
        EXPECT_FALSE(agent->storeMode(4));
        EXPECT_FALSE(agent->setWebServerAddress("10.0.0.6"));
        EXPECT_FALSE(agent->applyInterfaceFilters({}));
    }
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(savedConfig(), saved);
    EXPECT_EQ(vlm::agentModeFrom(config.document.get()), 1);
}

}  // namespace
