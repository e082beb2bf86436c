// The agent's reaction times (root; test hosts of its own):
// 1. an engine server announced on host "a" (avahi-publish-service starting) to onAttached of
//    a Slave agent on host "b", beside the delay avahi-browse -r on "b" shows for it;
// 2. the attached server withdrawn (its publisher ends and Avahi says goodbye) to onAttached
//    for the next known server, beside avahi-browse's report of the withdrawal;
// 3. the engine child killed (SIGKILL) to "Engine process died" (onEngineDied), which the
//    watcher learns from the child's end (on loopback only, with DNS-SD switched off).

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "AgentTool.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using vlm::test::AgentOnHost;
using vlm::test::Child;
using vlm::test::TestNet;

constexpr int kRuns = 7;
constexpr std::size_t kKills = 10;

double ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

void summary(const char* what, std::vector<double> values) {
    if (values.empty()) {
        std::printf("%-44s no data\n", what);
        return;
    }
    std::sort(values.begin(), values.end());
    std::printf("%-44s median %8.1f ms  min %8.1f  max %8.1f  (n=%zu)\n", what,
                values[values.size() / 2], values.front(), values.back(), values.size());
}

/// \brief avahi-browse -r -p on a host, and when each of its lines was first seen.
class AvahiBrowse {
public:
    AvahiBrowse(const TestNet& net, const std::string& host)
        : child_(net.start(host, {"avahi-browse", "-r", "-p", "_http._tcp"})) {}
    /// Polls the output until a line starts with prefix; the time it was first seen.
    std::optional<Clock::time_point> waitForLine(const std::string& prefix,
                                                 std::chrono::milliseconds timeout = 15s) {
        std::optional<Clock::time_point> seen;
        vlm::test::eventually(
            [&] {
                const std::string text = child_->output();
                std::size_t at = text.find("\n" + prefix);
                if (at == std::string::npos && text.rfind(prefix, 0) != 0)
                    return false;
                seen = Clock::now();
                return true;
            },
            timeout, 1ms);
        return seen;
    }

private:
    std::unique_ptr<Child> child_;
};

std::unique_ptr<Child> publish(const TestNet& net, const std::string& name, int port) {
    return net.start("a", {"avahi-publish-service", "--subtype=_ravenna._sub._http._tcp", name,
                           "_http._tcp", std::to_string(port)});
}

void withdraw(Child& publisher) {
    // SIGTERM: Avahi sends its goodbye at once.
    publisher.kill(SIGTERM);
    publisher.wait(5s);
}

void discovery(const TestNet& net) {
    AvahiBrowse avahi(net, "b");
    AgentOnHost agent(net, "b", R"({"mode": 2})", {"--no-startup"});
    if (!agent.waitFor("ready", {}, 15s)) {
        std::printf("the agent did not start:\n%s\n", agent.log().c_str());
        return;
    }
    const std::string a = net.address("a");

    std::vector<double> attach, browse, gap, detach;
    for (int run = 0; run < kRuns; ++run) {
        const std::string name = "_velmor_p" + std::to_string(run);
        const int port = 8000 + run;
        const std::string endpoint = a + ":" + std::to_string(port);
        const auto started = Clock::now();
        auto publisher = publish(net, name, port);
        auto attached = agent.waitFor("attached", endpoint);
        auto seen = avahi.waitForLine("=;eth0;IPv4;" + name + ";");
        if (attached)
            attach.push_back(ms(attached->at - started));
        if (seen)
            browse.push_back(ms(*seen - started));
        if (attached && seen)
            gap.push_back(ms(attached->at - *seen));
        const auto withdrawn = Clock::now();
        withdraw(*publisher);
        if (auto detached = agent.waitFor("detached", endpoint))
            detach.push_back(ms(detached->at - withdrawn));
    }
    summary("announcement -> onAttached (agent on b)", attach);
    summary("announcement -> avahi-browse -r line on b", browse);
    summary("onAttached minus avahi-browse, per run", gap);
    summary("withdrawal -> onDetached", detach);

    // Two servers known at a time; the attached one goes, the other must take over.
    std::vector<double> reattach, browseGone;
    std::string current = "_velmor_r0";
    int currentPort = 9000;
    auto attachedPublisher = publish(net, current, currentPort);
    agent.waitFor("attached", a + ":9000");
    for (int run = 1; run <= kRuns; ++run) {
        const std::string next = "_velmor_r" + std::to_string(run);
        const int nextPort = 9000 + run;
        const std::string nextEndpoint = a + ":" + std::to_string(nextPort);
        auto nextPublisher = publish(net, next, nextPort);
        vlm::test::eventually([&] {
            return agent.logHas("Ignored VELMOR at " + nextEndpoint + " because it is not");
        });
        const auto withdrawn = Clock::now();
        withdraw(*attachedPublisher);
        if (auto attached = agent.waitFor("attached", nextEndpoint))
            reattach.push_back(ms(attached->at - withdrawn));
        if (auto gone = avahi.waitForLine("-;eth0;IPv4;" + current + ";"))
            browseGone.push_back(ms(*gone - withdrawn));
        attachedPublisher = std::move(nextPublisher);
        current = next;
        currentPort = nextPort;
    }
    withdraw(*attachedPublisher);
    summary("withdrawal of attached -> onAttached next", reattach);
    summary("withdrawal -> avahi-browse -r removal line", browseGone);
}

void engineDeath() {
    vlm::test::TempDir dir;
    const unsigned short port = vlm::test::freeLoopbackPort();
    std::unique_ptr<Child> tool = vlm::test::startLocalAgentTool(dir, port);
    Child& agent = *tool;
    auto events = [&agent](const std::string& kind) {
        std::vector<vlm::test::AgentEvent> found;
        for (const auto& event : vlm::test::agentEvents(vlm::test::withoutColours(agent.output())))
            if (event.kind == kind)
                found.push_back(event);
        return found;
    };
    // Until it is ready, SIGHUP would end the tool instead of launching the engine.
    if (!vlm::test::eventually([&] { return !events("ready").empty(); })) {
        std::printf("the agent did not start:\n%s\n", agent.errors().c_str());
        return;
    }
    std::vector<double> died;
    for (std::size_t run = 0; run < kKills; ++run) {
        agent.kill(SIGHUP);
        if (!vlm::test::eventually([&] { return events("launched").size() > run; }) ||
            !vlm::test::waitForEngine(port, 10s)) {
            std::printf("engine did not start:\n%s\n", agent.output().c_str());
            return;
        }
        const pid_t engine = std::stoi(events("launched").back().text);
        // Killed at a point of the watch interval that differs from run to run.
        std::this_thread::sleep_for(std::chrono::milliseconds(150 + 290 * run));
        const auto killed = Clock::now();
        ::kill(engine, SIGKILL);
        if (vlm::test::eventually([&] { return events("engine-died").size() > run; }, 10s, 2ms))
            died.push_back(ms(events("engine-died").back().at - killed));
    }
    agent.kill(SIGKILL);
    summary("engine killed -> Engine process died", died);
}

}  // namespace

int main() {
    if (geteuid() != 0) {
        std::printf("needs root (test hosts)\n");
        return 1;
    }
    {
        TestNet net({"a", "b"});
        if (!net.ok()) {
            std::printf("%s\n", net.error().c_str());
            return 1;
        }
        discovery(net);
    }
    engineDeath();
    return 0;
}
