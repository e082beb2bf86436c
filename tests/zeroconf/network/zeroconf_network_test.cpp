// The zeroconf library, its Avahi binding and the engine's announcement against real Avahi
// daemons on test hosts: only what needs a real daemon. The library runs in zeroconf_host_tool;
// Avahi's own tools are the other side.
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include <sys/stat.h>

#include "TestNet.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using vlm::test::Child;
using vlm::test::shellQuote;

namespace {

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds limit = 20s) {
    for (auto end = std::chrono::steady_clock::now() + limit; !done();)
        if (std::chrono::steady_clock::now() > end)
            return false;
        else
            std::this_thread::sleep_for(20ms);
    return true;
}

class ZeroconfNetwork : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(net.ok()) << net.error(); }
    void TearDown() override { children.clear(); }  // before the hosts go

    Child& start(const std::string& host, std::vector<std::string> args,
                 const std::string& env = "") {
        args.insert(args.begin(), {"env", "-u", "VELMOR_DNSSD_LIBRARY"});
        if (!env.empty())
            args.insert(args.begin() + 3, env);
        children.push_back(net.start(host, args));
        return *children.back();
    }
    Child& tool(const std::string& host, std::vector<std::string> args,
                const std::string& env = "") {
        args.insert(args.begin(), vlm::test::buildDir() + "/zeroconf_host_tool");
        Child& child = start(host, args, env);
        EXPECT_TRUE(eventually([&] { return !reports(child, "ready").empty(); })) << log(child);
        return child;
    }
    // avahi-publish-service on host, once Avahi established the name (it says so on stderr).
    Child& publish(const std::string& host, std::vector<std::string> args) {
        args.insert(args.begin(), "avahi-publish-service");
        Child& child = start(host, args);
        EXPECT_TRUE(eventually([&] {
            return child.errors().find("Established") != std::string::npos;
        })) << child.errors();
        return child;
    }
    static std::string log(const Child& child) { return vlm::test::withoutColours(child.output()); }
    // The fields of the tool's reports of one kind.
    static std::vector<std::vector<std::string>> reports(const Child& child,
                                                         const std::string& kind) {
        std::vector<std::vector<std::string>> found;
        std::istringstream in(log(child));
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("@" + kind + "\t", 0) != 0 && line != "@" + kind)
                continue;
            std::vector<std::string> fields;
            std::istringstream parts(line.substr(std::min(line.size(), kind.size() + 2)) + '\t');
            for (std::string field; std::getline(parts, field, '\t');)
                fields.push_back(field);
            found.push_back(fields);
        }
        return found;
    }
    // What Avahi on host knows of a service type: one line per instance and transport.
    std::string view(const std::string& host, const std::string& type) const {
        std::string output;
        net.run(host, "avahi-browse -r -t -p -k " + type, &output);
        return output;
    }
    bool seen(const std::string& host, const std::string& type, const std::string& text,
              bool present = true, std::chrono::milliseconds limit = 20s) const {
        return eventually(
            [&] { return (view(host, type).find(text) != std::string::npos) == present; }, limit);
    }
    std::string resolved(const std::string& name, const std::string& host, int port) const {
        return "=;eth0;IPv4;" + name + ";_http._tcp;local;" + host + ".local;" + net.address(host) +
               ";" + std::to_string(port) + ";";
    }
    static std::string txtOf(const std::string& view, const std::string& line) {
        std::string rest = view.substr(view.find(line) + line.size());
        return rest.substr(0, rest.find('\n'));
    }
    void stop(Child& child) {
        child.kill(SIGTERM);
        EXPECT_EQ(child.wait(10s), 0) << log(child);
    }

    vlm::test::TestNet net{{"a", "b"}};
    std::vector<std::unique_ptr<Child>> children;
};

// Our registration as the other host sees it: the name's dot and backslash, the subtype, the
// TXT entries in the order given (Avahi alone reverses them); our browser reads it back the same,
// once although Avahi reports it per transport, and hears the goodbye at once.
TEST_F(ZeroconfNetwork, RegistrationIsSeenAsGivenAndBrowsedOnceUntilWithdrawn) {
    Child& browser = tool("b", {"browse", "_http._tcp", "_ravenna", "a.local."});
    Child& service = tool(
        "a", {"register", "Odd.Name\\x", "_http._tcp", "9123", "_ravenna", "master:1", "", "x=y"});
    ASSERT_TRUE(eventually([&] { return !reports(service, "status").empty(); })) << log(service);
    EXPECT_EQ(reports(service, "status")[0], std::vector<std::string>{"3"});
    const std::string line = resolved("Odd\\.Name\\\\x", "a", 9123);
    ASSERT_TRUE(seen("b", "_ravenna._sub._http._tcp", line)) << view("b", "_http._tcp");
    EXPECT_EQ(txtOf(view("b", "_ravenna._sub._http._tcp"), line), "\"master:1\" \"x=y\"");

    ASSERT_TRUE(eventually([&] { return !reports(browser, "add").empty(); })) << log(browser);
    auto add = reports(browser, "add")[0];
    EXPECT_EQ(std::vector<std::string>(add.begin() + 2, add.end()),
              (std::vector<std::string>{"Odd.Name\\x", "_http._tcp.", "a.local.", net.address("a"),
                                        "9123", "master:1", "x=y"}));
    EXPECT_EQ(reports(browser, "host").at(0),
              (std::vector<std::string>{add[1], "a.local.", net.address("a")}));
    stop(service);
    ASSERT_TRUE(eventually([&] { return !reports(browser, "remove").empty(); }, 5s));
    std::this_thread::sleep_for(1s);  // what Avahi reports on the second transport
    EXPECT_EQ(reports(browser, "add").size(), 1u);
    EXPECT_EQ(reports(browser, "remove").size(), 1u);
    stop(browser);
    std::string text = log(browser);  // one line: the address found, at the debug level
    EXPECT_EQ(text.find("zeroconf_category"), text.rfind("zeroconf_category: [0x")) << text;
    EXPECT_EQ(browser.errors() + service.errors(), "");  // Avahi's compatibility warning
}

// A name taken on another host or on the same one: a conflict, reported once, and the name Avahi
// picked instead ("Taken #2") is never left on the network.
TEST_F(ZeroconfNetwork, TakenNameIsAConflictAndNeverRenamed) {
    publish("a", {"Taken", "_http._tcp", "1234"});
    ASSERT_TRUE(seen("b", "_http._tcp", resolved("Taken", "a", 1234)));
    for (const std::string host : {"b", "a"}) {
        Child& service = tool(host, {"register", "Taken", "_http._tcp", "4321", "-"});
        ASSERT_TRUE(eventually([&] { return !reports(service, "status").empty(); }, 15s))
            << log(service);
        EXPECT_EQ(reports(service, "status")[0], std::vector<std::string>{"2"}) << host;
        EXPECT_NE(log(service).find("bonjour_service failed name collision (-65548)"),
                  std::string::npos);
        std::this_thread::sleep_for(2s);  // a withdrawn record lingers up to 1 s
        for (const std::string viewer : {"a", "b"})
            EXPECT_TRUE(seen(viewer, "_http._tcp", "Taken\\032", false, 15s))
                << view(viewer, "_http._tcp");
        stop(service);
        EXPECT_EQ(reports(service, "status").size(), 1u);
    }
}

// A service whose host has no address: Avahi gives up on its resolve with null names, which
// once killed the agent. The failure is one log line and a service found afterwards is still
// reported, by a process whose sockets are numbered above 1023 (select broke there). A killed
// daemon is logged too, and its dead socket leaves the poll thread idle.
TEST_F(ZeroconfNetwork, FailedResolveAndKilledDaemonAreLoggedWithManyDescriptorsOpen) {
    Child& browser = tool("b", {"browse", "_velmortest._tcp"}, "OPEN_DESCRIPTORS=1100");
    publish("a", {"-H", "ghost.local", "Ghost", "_velmortest._tcp", "4000"});
    auto lines = [&] {  // the library's own, errors only here
        std::string text = log(browser);
        std::size_t count = 0;
        for (auto at = text.find("errorCode = "); at != std::string::npos;
             at = text.find("errorCode = ", at + 1))
            ++count;
        return text.find("zeroconf_category") == std::string::npos ? 0 : count;
    };
    ASSERT_TRUE(eventually([&] { return lines() == 1; })) << log(browser);
    publish("a", {"Real", "_velmortest._tcp", "4001"});
    ASSERT_TRUE(eventually([&] { return !reports(browser, "add").empty(); })) << log(browser);
    EXPECT_EQ(reports(browser, "add")[0][2], "Real");
    EXPECT_EQ(lines(), 1u) << log(browser);

    ASSERT_EQ(net.run("b", "kill -9 $(cat /run/avahi-daemon/pid)"), 0);
    EXPECT_TRUE(eventually([&] { return lines() > 1; })) << log(browser);
    auto cpu = [&] {
        std::size_t count = reports(browser, "cpu").size();
        browser.kill(SIGUSR2);
        EXPECT_TRUE(eventually([&] { return reports(browser, "cpu").size() > count; }));
        return std::stoll(reports(browser, "cpu").back().at(1));
    };
    long long before = cpu();
    std::this_thread::sleep_for(1s);
    EXPECT_LT(cpu() - before, 50'000'000) << "poll thread ns over 1 s";
    EXPECT_EQ(reports(browser, "add").size(), 1u);
    stop(browser);
    // Without a daemon a new browse is refused as DNS-SD callers expect: ServiceNotRunning.
    Child& late = start("b", {vlm::test::buildDir() + "/zeroconf_host_tool", "browse", "_x._tcp"});
    EXPECT_EQ(late.wait(10s), 1);
    EXPECT_NE(log(late).find("DNSServiceBrowse() failed (-65563)."), std::string::npos)
        << log(late);
}

// The engine's announcement: "_velmor_" and the short host name cut under 64 bytes, a master
// with "master:1"; stopped and started again it is announced again; it goes when the engine
// does.
TEST_F(ZeroconfNetwork, EngineAnnouncement) {
    const std::string label(58, 'h'), name = "_velmor_" + label.substr(0, 55);
    const std::string type = "_ravenna._sub._http._tcp";
    Child& engine = start("a",
                          {"unshare", "--uts", "sh", "-c",
                           "hostname " + label + ".lan && exec " + vlm::test::buildDir() +
                               "/zeroconf_host_tool engine 3"},
                          "VELMOR_ENGINE_PORT=18082");
    const std::string line = resolved(name, "a", 18082) + "\"master:1\"";
    ASSERT_TRUE(seen("b", type, line)) << view("b", type) << log(engine);
    engine.kill(SIGUSR1);
    ASSERT_TRUE(eventually([&] { return !reports(engine, "stopped").empty(); })) << log(engine);
    EXPECT_TRUE(seen("b", type, name, false, 5s)) << view("b", type);
    engine.kill(SIGUSR1);
    ASSERT_TRUE(eventually([&] { return !reports(engine, "started").empty(); })) << log(engine);
    ASSERT_TRUE(seen("b", type, line)) << view("b", type);
    stop(engine);
    EXPECT_TRUE(seen("b", type, name, false, 5s)) << view("b", type);
    EXPECT_EQ(log(engine).find("zeroconf_category"), std::string::npos) << log(engine);
}

}  // namespace
