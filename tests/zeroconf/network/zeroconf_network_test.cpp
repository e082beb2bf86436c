// The library (in zeroconf_host_tool) against real Avahi daemons and tools on test hosts.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "ProgramsOnHost.h"

using namespace std::chrono_literals;
using vlm::test::Child;
using vlm::test::eventually;
using Fields = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {
std::size_t count(const std::string& text, const std::string& part) {
    std::size_t found = 0, at = 0;
    for (; (at = text.find(part, at)) != std::string::npos; ++at)
        ++found;
    return found;
}
class ZeroconfNetwork : public ::testing::Test {
protected:
    static std::string log(const Child& child) { return vlm::test::withoutColours(child.output()); }
    // The tool's "@kind" reports, each as its tab-separated fields.
    static std::vector<Fields> reports(const Child& child, const std::string& kind) {
        std::vector<Fields> found;
        std::istringstream in(log(child));
        for (std::string line; std::getline(in, line);)
            if (line.rfind("@" + kind + "\t", 0) == 0) {
                std::istringstream parts(line.substr(kind.size() + 2) + '\t');
                found.emplace_back();
                for (std::string field; std::getline(parts, field, '\t');)
                    found.back().push_back(field);
            }
        return found;
    }
    void SetUp() override { ASSERT_TRUE(net.ok()) << net.error(); }
    void TearDown() override { children.clear(); }  // before the hosts go
    // zeroconf_host_tool on host, or an Avahi tool (args start with it), once it is ready.
    Child& tool(const std::string& host, std::vector<std::string> args,
                const std::string& env = "VELMOR_ON_TEST_HOST=1") {
        if (args[0].rfind("avahi-", 0) != 0)
            args.insert(args.begin(), vlm::test::buildDir() + "/zeroconf_host_tool");
        // Fresh allocations not zero: what Avahi's library leaves uninitialised shows.
        args.insert(args.begin(),
                    {"env", "-u", "VELMOR_DNSSD_LIBRARY", "MALLOC_PERTURB_=165", env});
        children.push_back(net.start(host, args));
        Child& child = *children.back();
        EXPECT_TRUE(eventually([&] {
            return !reports(child, "ready").empty() || count(child.errors(), "Established") ||
                   child.wait(0ms);
        })) << log(child) + child.errors();
        return child;
    }
    // What Avahi on host knows of a service type: one line per instance and transport.
    std::string view(const std::string& host, const std::string& type) const {
        std::string output;
        net.run(host, "avahi-browse -r -t -p -k " + type, &output);
        return output;
    }
    bool seen(const std::string& host, const std::string& type, const std::string& text,
              bool present = true) const {
        return eventually([&] { return count(view(host, type), text) == present; });
    }
    std::string resolved(const std::string& name, const std::string& host, int port) const {
        return "=;eth0;IPv4;" + name + ";_http._tcp;local;" + host + ".local;" + net.address(host) +
               ";" + std::to_string(port) + ";";
    }
    // The first report of a kind, once there is one; empty without.
    static Fields first(const Child& child, const std::string& kind) {
        eventually([&] { return !reports(child, kind).empty(); });
        auto all = reports(child, kind);
        return all.empty() ? Fields{} : all[0];
    }
    void stop(Child& child) {
        child.kill(SIGTERM);
        EXPECT_EQ(child.wait(10s), 0) << log(child);
    }
    vlm::test::TestNet net{{"a", "b"}};
    std::vector<std::unique_ptr<Child>> children;
};

// Escapes, subtype, TXT order, one add per service (not per transport), the goodbye; a resolve
// Avahi gives up on (the host has no address yet) finished once there is one, without an error
// line; sockets above 1023 (select broke there); no daemon.
TEST_F(ZeroconfNetwork, RegistrationFailedResolveAndKilledDaemonAsOurBrowserSeesThem) {
    Child& browser =
        tool("b", {"browse", "_http._tcp", "_ravenna", "a.local."}, "OPEN_DESCRIPTORS=1100");
    tool("a", {"avahi-publish-service", "-H", "ghost.local", "--subtype=_ravenna._sub._http._tcp",
               "Ghost.1", "_http._tcp", "4000", "master:1"});
    const auto ghostAnnounced = std::chrono::steady_clock::now();
    Child& service = tool(
        "a", {"register", "Odd.Name\\x", "_http._tcp", "9123", "_ravenna", "master:1", "", "x=y"});
    EXPECT_EQ(first(service, "status"), Fields{"3"}) << log(service);
    const std::string line = resolved("Odd\\.Name\\\\x", "a", 9123);
    ASSERT_TRUE(seen("b", "_ravenna._sub._http._tcp", line)) << view("b", "_http._tcp");
    EXPECT_EQ(count(view("b", "_ravenna._sub._http._tcp"), line + "\"master:1\" \"x=y\"\n"), 1u);
    Fields add = first(browser, "add");
    ASSERT_EQ(add.size(), 9u) << log(browser);
    EXPECT_EQ(Fields(add.begin() + 2, add.end()),
              (Fields{"Odd.Name\\x", "_http._tcp.", "a.local.", net.address("a"), "9123",
                      "master:1", "x=y"}));
    EXPECT_EQ(first(browser, "host"), (Fields{add[1], "a.local.", net.address("a")}));
    std::this_thread::sleep_until(ghostAnnounced + 6s);  // Avahi's resolve gives up after 5 s
    tool("a", {"avahi-publish-address", "-R", "ghost.local", "10.77.0.9"});
    ASSERT_TRUE(eventually([&] { return reports(browser, "add").size() == 2; })) << log(browser);
    add = reports(browser, "add")[1];
    EXPECT_EQ(Fields(add.begin() + 2, add.end()),
              (Fields{"Ghost.1", "_http._tcp.", "ghost.local.", "10.77.0.9", "4000", "master:1"}));
    stop(service);
    ASSERT_TRUE(eventually([&] { return !reports(browser, "remove").empty(); }, 5s));
    EXPECT_EQ(reports(browser, "remove").size(), 1u);
    // The address found, at the debug level, and nothing else.
    EXPECT_EQ(count(log(browser), "zeroconf_category"), 1u) << log(browser);
    EXPECT_EQ(browser.errors() + service.errors(), "");  // Avahi's compatibility warning
    ASSERT_EQ(net.avahi("b", "kill"), 0);
    EXPECT_TRUE(eventually([&] { return count(log(browser), "DNS-SD daemon lost (-65537)"); }));
    stop(browser);
    Child& late = tool("b", {"browse", "_x._tcp"});  // refused as ServiceNotRunning
    EXPECT_EQ(late.wait(10s), 1);
    EXPECT_EQ(count(log(late), "DNSServiceBrowse() failed (-65563)."), 1u) << log(late);
}

// A name taken here or elsewhere: one conflict, and Avahi's "Taken #2" never left on the network.
TEST_F(ZeroconfNetwork, TakenNameIsAConflictAndNeverRenamed) {
    tool("a", {"avahi-publish-service", "Taken", "_http._tcp", "1234"});
    ASSERT_TRUE(seen("b", "_http._tcp", resolved("Taken", "a", 1234)));
    for (const std::string host : {"b", "a"}) {
        Child& service = tool(host, {"register", "Taken", "_http._tcp", "4321", "-"});
        EXPECT_EQ(first(service, "status"), Fields{"2"}) << host << log(service);
        EXPECT_EQ(count(log(service), "bonjour_service failed name collision (-65548)"), 1u);
        std::this_thread::sleep_for(2s);  // a withdrawn record lingers up to 1 s
        for (const std::string viewer : {"a", "b"})
            EXPECT_TRUE(seen(viewer, "_http._tcp", "Taken\\032", false))
                << view(viewer, "_http._tcp");
        // A daemon restart neither revives the registration nor breaks its owner.
        ASSERT_EQ(net.avahi(host, "kill") + net.avahi(host, "start"), 0);
        std::this_thread::sleep_for(3s);
        stop(service);
        EXPECT_EQ(reports(service, "status").size(), 1u);
    }
}

struct Restart {
    const char* name;
    std::chrono::seconds down;
    std::size_t times;
    friend void PrintTo(const Restart& row, std::ostream* out) { *out << row.name; }
};
class DaemonRestart : public ZeroconfNetwork, public ::testing::WithParamInterface<Restart> {};

// Both daemons restarted: the engine announced again with its TXT, new servers reported, one gone
// meanwhile removed 10 s after the return, no descriptor or thread left per restart.
TEST_P(DaemonRestart, AnnouncementAndBrowseComeBack) {
    vlm::test::EngineOnHost engine(net, "a", 18090, true);
    ASSERT_TRUE(engine.announced()) << engine.log();
    Child& browser = tool("b", {"browse", "_http._tcp", "_ravenna"});
    auto usage = [&, pids = {browser.pid(), engine.engineChildren().at(0)}] {
        std::string text;  // descriptors and threads of each
        for (pid_t pid : pids)
            for (const char* folder : {"/fd", "/task"}) {
                fs::directory_iterator entries("/proc/" + std::to_string(pid) + folder);
                text += std::to_string(std::distance(entries, {})) + ' ';
            }
        return text;
    };
    auto publish = [&](int i) {
        return &tool("a", {"avahi-publish-service", "--subtype=_ravenna._sub._http._tcp",
                           "S" + std::to_string(i), "_http._tcp", "4000"});
    };
    auto reported = [&](const std::string& kind, const std::string& name) -> long long {
        for (const auto& fields : reports(browser, kind))
            if (fields.at(2) == name)
                return std::stoll(fields[0]);
        return 0;
    };
    Child* server = publish(0);
    ASSERT_TRUE(eventually([&] { return reported("add", "S0") && reported("add", "_velmor_a"); }))
        << log(browser);
    const std::string before = usage();
    auto back = std::chrono::steady_clock::now();
    for (std::size_t i = 1; i <= GetParam().times; ++i) {
        if (i == 1) {  // a query under way when the daemon goes: its host has no IPv4 address
            tool("a", {"avahi-publish-address", "-R", "ghost.local", "fd00::77"});
            tool("a", {"avahi-publish-service", "-H", "ghost.local",
                       "--subtype=_ravenna._sub._http._tcp", "G", "_http._tcp", "4001"});
            std::this_thread::sleep_for(1s);
        }
        ASSERT_EQ(net.avahi("b", "kill"), 0);
        server->kill(SIGTERM);  // its goodbye is lost on b
        ASSERT_EQ(net.avahi("a", "kill"), 0);
        std::this_thread::sleep_for(GetParam().down);
        ASSERT_EQ(net.avahi("a", "start") + net.avahi("b", "start"), 0);
        back = std::chrono::steady_clock::now();
        server = publish(i);
        const std::string own = resolved("_velmor_a", "a", 18090) + "\"master:1\"";
        EXPECT_TRUE(eventually([&] { return count(view("a", "_http._tcp"), own) == 1; }, 10s))
            << view("a", "_http._tcp") << engine.log();
        EXPECT_TRUE(eventually([&] { return reported("add", "S" + std::to_string(i)); },
                               std::chrono::duration_cast<std::chrono::milliseconds>(
                                   back + 10s - std::chrono::steady_clock::now())))
            << log(browser);
    }
    const std::string last = "S" + std::to_string(GetParam().times - 1);
    ASSERT_TRUE(eventually([&] { return reported("remove", last); }, 20s)) << log(browser);
    const auto after = std::chrono::nanoseconds(reported("remove", last)) - back.time_since_epoch();
    EXPECT_TRUE(after > 6s && after < 10s) << after.count();
    EXPECT_EQ(reports(browser, "remove").size(), GetParam().times + 1);
    EXPECT_EQ(count(engine.log(), "announced again once the DNS-SD daemon answers"),
              GetParam().times);
    EXPECT_TRUE(eventually([&] { return usage() == before; })) << before << usage();
    stop(browser);
}

INSTANTIATE_TEST_SUITE_P(Zeroconf, DaemonRestart,
                         ::testing::Values(Restart{"FiveTimesFor2s", 2s, 5},
                                           Restart{"OnceFor30s", 30s, 1}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
