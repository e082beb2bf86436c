// The zeroconf library and the engine's announcement against real Avahi daemons on two test
// hosts. The library side runs in zeroconf_host_tool on a host; Avahi's own tools are the other
// side.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include "TestNet.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using vlm::test::Child;
using vlm::test::shellQuote;
using vlm::test::TempDir;
using vlm::test::TestNet;
using vlm::test::withoutColours;

namespace {

// Polls until done() holds; false when the time runs out first.
bool eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout = 20s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

std::vector<std::string> splitTabs(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream in(line);
    for (std::string field; std::getline(in, field, '\t');)
        fields.push_back(field);
    // A trailing tab ends an empty last field (a TXT record of one empty entry).
    if (!line.empty() && line.back() == '\t')
        fields.emplace_back();
    return fields;
}

// One "@" line of the host tool: its kind, then the fields after it.
struct Report {
    std::string kind;
    std::vector<std::string> fields;
};

// An "@add" report of a browser_listener::add call.
struct Added {
    std::string name, type, host, address;
    int port = 0;
    std::vector<std::string> txt;
};

Added added(const Report& report) {
    const auto& f = report.fields;
    Added a;
    if (f.size() < 7)
        return a;
    a = {f[2], f[3], f[4], f[5], std::stoi(f[6]), {f.begin() + 7, f.end()}};
    return a;
}

/// \brief The library's side on one test host: zeroconf_host_tool and its reports.
class HostTool {
public:
    HostTool(const TestNet& net, const std::string& host, const std::vector<std::string>& args,
             const std::vector<std::string>& env = {}) {
        std::vector<std::string> command{"env", "-u", "VELMOR_DNSSD_LIBRARY"};
        command.insert(command.end(), env.begin(), env.end());
        command.push_back(vlm::test::buildDir() + "/zeroconf_host_tool");
        command.insert(command.end(), args.begin(), args.end());
        child_ = net.start(host, command);
    }

    std::string log() const { return withoutColours(child_->output()); }

    std::vector<Report> reports(const std::string& kind) const {
        std::vector<Report> found;
        std::istringstream in(log());
        for (std::string line; std::getline(in, line);) {
            if (line.empty() || line[0] != '@')
                continue;
            std::vector<std::string> fields = splitTabs(line.substr(1));
            if (fields.empty() || fields[0] != kind)
                continue;
            found.push_back({kind, {fields.begin() + 1, fields.end()}});
        }
        return found;
    }

    std::vector<Added> adds(const std::string& name) const {
        std::vector<Added> found;
        for (const Report& report : reports("add"))
            if (added(report).name == name)
                found.push_back(added(report));
        return found;
    }

    std::size_t removes(const std::string& name) const {
        auto all = reports("remove");
        return std::count_if(all.begin(), all.end(), [&](const Report& r) {
            return r.fields.size() > 2 && r.fields[2] == name;
        });
    }

    bool waitFor(const std::string& kind, std::size_t count = 1,
                 std::chrono::milliseconds timeout = 20s) const {
        return eventually([&] { return reports(kind).size() >= count || !running(); }, timeout) &&
               reports(kind).size() >= count;
    }

    bool waitForAdd(const std::string& name, std::size_t count = 1) const {
        return eventually([&] { return adds(name).size() >= count || !running(); }) &&
               adds(name).size() >= count;
    }

    bool waitForRemove(const std::string& name) const {
        return eventually([&] { return removes(name) > 0 || !running(); }) && removes(name) > 0;
    }

    bool running() const { return !child_->wait(0ms).has_value(); }

    void signal(int number) { child_->kill(number); }

    /// Asks the tool to end everything it opened; its exit status (nullopt: it hangs).
    std::optional<int> finish() {
        child_->kill(SIGTERM);
        return child_->wait(10s);
    }

    /// CPU time of the tool's poll thread so far, in ns.
    long long pollThreadCpu() {
        std::size_t before = reports("cpu").size();
        signal(SIGUSR2);
        if (!waitFor("cpu", before + 1))
            return -1;
        return std::stoll(reports("cpu").back().fields.at(1));
    }

private:
    std::unique_ptr<Child> child_;
};

class ZeroconfNetwork : public ::testing::Test {
protected:
    void SetUp() override {
        net_ = std::make_unique<TestNet>(std::vector<std::string>{"a", "b"});
        ASSERT_TRUE(net_->ok()) << net_->error();
    }

    void TearDown() override {
        // The programs on the hosts end before the hosts go.
        publishers_.clear();
        net_.reset();
    }

    // avahi-publish-service on host; returns once Avahi established the name.
    Child& publish(const std::string& host, const std::vector<std::string>& args) {
        std::vector<std::string> command{"avahi-publish-service"};
        command.insert(command.end(), args.begin(), args.end());
        publishers_.push_back(net_->start(host, command));
        Child& publisher = *publishers_.back();
        // It reports on standard error.
        EXPECT_TRUE(eventually([&] {
            return publisher.errors().find("Established") != std::string::npos;
        })) << publisher.errors();
        return publisher;
    }

    void unpublish(Child& publisher) {
        // SIGTERM: Avahi says goodbye, so browsers hear of the withdrawal at once.
        publisher.kill(SIGTERM);
        EXPECT_TRUE(publisher.wait(5s).has_value());
    }

    // What Avahi on host knows of a service type: one line per instance and transport.
    std::string view(const std::string& host, const std::string& type) const {
        std::string output;
        net_->run(host, "avahi-browse -r -t -p -k " + type, &output);
        return output;
    }

    bool viewContains(const std::string& host, const std::string& type, const std::string& text,
                      std::chrono::milliseconds timeout = 20s) const {
        return eventually([&] { return view(host, type).find(text) != std::string::npos; },
                          timeout);
    }

    bool viewLacks(const std::string& host, const std::string& type, const std::string& text,
                   std::chrono::milliseconds timeout = 20s) const {
        return eventually([&] { return view(host, type).find(text) == std::string::npos; },
                          timeout);
    }

    // The resolved IPv4 line avahi-browse prints for an instance, up to its TXT field.
    std::string resolvedLine(const std::string& escapedName, const std::string& type,
                             const std::string& host, int port) const {
        return "=;eth0;IPv4;" + escapedName + ";" + type + ";local;" + host + ".local;" +
               net_->address(host) + ";" + std::to_string(port) + ";";
    }

    // The pid of the avahi-daemon of host, from its pid file in the host's own /run.
    std::string avahiPid(const std::string& host) const {
        std::string output;
        net_->run(host, "cat /run/avahi-daemon/pid", &output);
        return output.substr(0, output.find('\n'));
    }

    // The folder testnet.sh keeps host's files in (its daemons' configuration among them).
    std::string hostFolder(const std::string& host) const {
        std::string bus = net_->busAddress(host);
        std::string prefix = "unix:path=";
        return bus.substr(prefix.size(), bus.find("/run/dbus/") - prefix.size());
    }

    void killAvahi(const std::string& host) {
        std::string pid = avahiPid(host);
        ASSERT_FALSE(pid.empty());
        ASSERT_EQ(net_->run(host, "kill -9 " + pid), 0);
        ASSERT_TRUE(
            eventually([&] { return net_->run(host, "kill -0 " + pid + " 2>/dev/null") != 0; }));
    }

    void restartAvahi(const std::string& host) {
        std::string folder = hostFolder(host);
        std::string output;
        ASSERT_EQ(net_->run(host,
                            "avahi-daemon -D --no-drop-root --no-chroot --no-rlimits "
                            "--no-proc-title --file=" +
                                shellQuote(folder + "/avahi-daemon.conf"),
                            &output),
                  0)
            << output;
        // Server state 2: the host name has been probed and announced.
        ASSERT_TRUE(eventually([&] {
            std::string state;
            net_->run(host,
                      "dbus-send --system --print-reply --dest=org.freedesktop.Avahi / "
                      "org.freedesktop.Avahi.Server.GetState",
                      &state);
            return state.find("int32 2") != std::string::npos;
        }));
    }

    // The engine-server role on host, its parent being the test's own sleeper process.
    struct Engine {
        std::unique_ptr<TempDir> dir;
        std::unique_ptr<Child> parent;
        std::unique_ptr<Child> process;
        std::string log() const { return withoutColours(process->output()); }
    };

    Engine startEngine(const std::string& host, int port, bool master,
                       const std::string& hostName = {}) {
        Engine engine;
        engine.dir = std::make_unique<TempDir>();
        const TempDir& dir = *engine.dir;
        for (const char* folder : {"appdata", "common", "runtime"})
            mkdir(dir.file(folder).c_str(), 0700);
        engine.parent = std::make_unique<Child>("/bin/sleep", std::vector<std::string>{"120"},
                                                std::map<std::string, std::string>{}, dir.path());
        std::string command =
            "exec env -u VELMOR_DNSSD_LIBRARY APPDATA=" + shellQuote(dir.file("appdata")) +
            " VELMOR_COMMON_APPDATA=" + shellQuote(dir.file("common")) +
            " XDG_RUNTIME_DIR=" + shellQuote(dir.file("runtime")) +
            " QT_QPA_PLATFORM=offscreen VELMOR_ENGINE_PORT=" + std::to_string(port) + " " +
            shellQuote(vlm::test::velmorPath()) + " --server 1 --apid " +
            std::to_string(engine.parent->pid()) + (master ? " --master 1" : "");
        if (!hostName.empty())
            // A host name of its own for this process only; Avahi keeps the host's.
            engine.process =
                net_->start(host, {"unshare", "--uts", "sh", "-c",
                                   "hostname " + shellQuote(hostName) + " && " + command});
        else
            engine.process = net_->start(host, {"sh", "-c", command});
        return engine;
    }

    std::unique_ptr<TestNet> net_;
    std::vector<std::unique_ptr<Child>> publishers_;
};

TEST_F(ZeroconfNetwork, ServicePublishedOnAnotherHostIsAddedWithItsDetailsThenRemoved) {
    HostTool browser(*net_, "b", {"browse", "_velmortest._tcp"});
    ASSERT_TRUE(browser.waitFor("ready")) << browser.log();
    Child& publisher = publish("a", {"Plain Service", "_velmortest._tcp", "4711", "k=v", "flag"});

    ASSERT_TRUE(browser.waitForAdd("Plain Service")) << browser.log();
    Added service = browser.adds("Plain Service").front();
    EXPECT_EQ(service.type, "_velmortest._tcp.");
    EXPECT_EQ(service.host, "a.local.");
    EXPECT_EQ(service.address, net_->address("a"));
    EXPECT_EQ(service.port, 4711);
    // In record order, as Avahi shows the record on the same host.
    ASSERT_TRUE(viewContains(
        "b", "_velmortest._tcp",
        resolvedLine("Plain\\032Service", "_velmortest._tcp", "a", 4711) + "\"flag\" \"k=v\""));
    EXPECT_EQ(service.txt, (std::vector<std::string>{"flag", "k=v"}));

    unpublish(publisher);
    ASSERT_TRUE(browser.waitForRemove("Plain Service")) << browser.log();
    EXPECT_EQ(browser.finish(), 0) << browser.log();
    // Avahi has it on IPv4 and IPv6: still one add and one remove.
    EXPECT_EQ(browser.adds("Plain Service").size(), 1u);
    EXPECT_EQ(browser.removes("Plain Service"), 1u);
    EXPECT_EQ(browser.reports("done").size(), 1u);
    EXPECT_EQ(browser.log().find("zeroconf_category"), std::string::npos) << browser.log();
}

TEST_F(ZeroconfNetwork, ServiceWithoutTxtGivesOneEmptyEntry) {
    HostTool browser(*net_, "b", {"browse", "_velmortest._tcp"});
    ASSERT_TRUE(browser.waitFor("ready")) << browser.log();
    publish("a", {"Bare", "_velmortest._tcp", "4712"});
    ASSERT_TRUE(browser.waitForAdd("Bare")) << browser.log();
    // DNS-SD never sends an empty TXT record: it holds one empty string.
    EXPECT_EQ(browser.adds("Bare").front().txt, std::vector<std::string>{""});
}

TEST_F(ZeroconfNetwork, SubtypeBrowseSeesOnlyTheServiceWithThatSubtype) {
    publish("a", {"Plain Http", "_http._tcp", "8081"});
    Child& ravenna = publish("a", {"--subtype=_ravenna._sub._http._tcp", "Ravenna Http",
                                   "_http._tcp", "8080", "master:1"});
    // Both are in b's cache before the browse starts, so both would be answered at once.
    ASSERT_TRUE(
        viewContains("b", "_http._tcp", resolvedLine("Plain\\032Http", "_http._tcp", "a", 8081)));
    ASSERT_TRUE(
        viewContains("b", "_http._tcp", resolvedLine("Ravenna\\032Http", "_http._tcp", "a", 8080)));

    HostTool browser(*net_, "b", {"browse", "_http._tcp", "_ravenna"});
    ASSERT_TRUE(browser.waitForAdd("Ravenna Http")) << browser.log();
    Added service = browser.adds("Ravenna Http").front();
    EXPECT_EQ(service.type, "_http._tcp.");
    EXPECT_EQ(service.host, "a.local.");
    EXPECT_EQ(service.address, net_->address("a"));
    EXPECT_EQ(service.port, 8080);
    EXPECT_EQ(service.txt, std::vector<std::string>{"master:1"});

    unpublish(ravenna);
    ASSERT_TRUE(browser.waitForRemove("Ravenna Http")) << browser.log();
    EXPECT_EQ(browser.finish(), 0);
    EXPECT_TRUE(browser.adds("Plain Http").empty()) << browser.log();
    EXPECT_EQ(browser.removes("Plain Http"), 0u) << browser.log();
}

TEST_F(ZeroconfNetwork, RegistrationIsSeenWithItsSubtypeAndTxtAndWithdrawnAtTheEnd) {
    HostTool browser(*net_, "b", {"browse", "_http._tcp", "_ravenna"});
    ASSERT_TRUE(browser.waitFor("ready")) << browser.log();
    HostTool service(
        *net_, "a",
        {"register", "Velmor Registered", "_http._tcp", "9123", "_ravenna", "master:1", "x=y"});
    ASSERT_TRUE(service.waitFor("status")) << service.log();
    EXPECT_EQ(service.reports("status").front().fields, std::vector<std::string>{"3"});

    std::string line = resolvedLine("Velmor\\032Registered", "_http._tcp", "a", 9123);
    ASSERT_TRUE(viewContains("b", "_ravenna._sub._http._tcp", line))
        << view("b", "_ravenna._sub._http._tcp");
    std::string seen = view("b", "_ravenna._sub._http._tcp");
    std::string txt = seen.substr(seen.find(line) + line.size());
    txt = txt.substr(0, txt.find('\n'));
    // In the order they were given (Avahi on its own would publish them reversed).
    EXPECT_EQ(txt, "\"master:1\" \"x=y\"");

    // Our own browser reads the entries back in record order, as Avahi shows them.
    ASSERT_TRUE(browser.waitForAdd("Velmor Registered")) << browser.log();
    Added found = browser.adds("Velmor Registered").front();
    EXPECT_EQ(found.port, 9123);
    EXPECT_EQ(found.address, net_->address("a"));
    std::string read;
    for (const std::string& entry : found.txt)
        read += (read.empty() ? "\"" : " \"") + entry + "\"";
    EXPECT_EQ(read, txt);

    // Ending the service says goodbye: the other host hears of it at once, not after the TTL.
    EXPECT_EQ(service.finish(), 0) << service.log();
    EXPECT_EQ(service.reports("done").size(), 1u);
    ASSERT_TRUE(browser.waitForRemove("Velmor Registered")) << browser.log();
    EXPECT_TRUE(viewLacks("b", "_ravenna._sub._http._tcp", "Velmor\\032Registered"));
    EXPECT_EQ(service.reports("status").size(), 1u);
    EXPECT_EQ(service.log().find("zeroconf_category"), std::string::npos) << service.log();
}

TEST_F(ZeroconfNetwork, NameTakenOnAnotherHostGivesCollisionAndNoRenamedService) {
    publish("a", {"Taken Name", "_http._tcp", "1234"});
    ASSERT_TRUE(viewContains("b", "_http._tcp", "Taken\\032Name;"));

    HostTool service(*net_, "b", {"register", "Taken Name", "_http._tcp", "4321", "_ravenna"});
    ASSERT_TRUE(service.waitFor("status", 1, 15s)) << service.log();
    auto answered = std::chrono::steady_clock::now();
    EXPECT_EQ(service.reports("status").front().fields, std::vector<std::string>{"2"});
    EXPECT_NE(service.log().find("bonjour_service failed name collision (-65548)"),
              std::string::npos)
        << service.log();

    // Avahi renamed it ("Taken Name #2") before the conflict was reported; that name must be
    // gone while the service object still lives (a withdrawn record lingers up to 1 s).
    for (const std::string host : {"a", "b"}) {
        EXPECT_TRUE(eventually(
            [&] {
                return std::chrono::steady_clock::now() - answered > 2s &&
                       view(host, "_http._tcp").find("Taken\\032Name\\032") == std::string::npos;
            },
            15s))
            << view(host, "_http._tcp");
    }
    EXPECT_NE(view("b", "_http._tcp").find(resolvedLine("Taken\\032Name", "_http._tcp", "a", 1234)),
              std::string::npos);
    EXPECT_TRUE(service.running());
    EXPECT_EQ(service.finish(), 0);
    EXPECT_EQ(service.reports("status").size(), 1u);
}

TEST_F(ZeroconfNetwork, NameTakenOnTheSameHostIsAConflictAndNeverRenamed) {
    publish("a", {"Taken Here", "_http._tcp", "1234"});

    HostTool service(*net_, "a", {"register", "Taken Here", "_http._tcp", "4321", "_ravenna"});
    // Avahi refuses a name its own host holds at once; the binding reports it as Bonjour does,
    // through the callback.
    ASSERT_TRUE(service.waitFor("status")) << service.log();
    EXPECT_EQ(service.reports("status").front().fields, std::vector<std::string>{"2"});
    EXPECT_NE(service.log().find("bonjour_service failed name collision (-65548)"),
              std::string::npos)
        << service.log();

    auto answered = std::chrono::steady_clock::now();
    EXPECT_TRUE(eventually(
        [&] {
            return std::chrono::steady_clock::now() - answered > 2s &&
                   view("b", "_http._tcp").find("Taken\\032Here\\032") == std::string::npos;
        },
        15s))
        << view("b", "_http._tcp");
    EXPECT_NE(view("b", "_http._tcp").find(resolvedLine("Taken\\032Here", "_http._tcp", "a", 1234)),
              std::string::npos);
}

TEST_F(ZeroconfNetwork, EngineRoleIsAnnouncedAsMasterAndWithdrawnWhenItsParentEnds) {
    Engine engine = startEngine("a", 18080, true);
    std::string line = resolvedLine("_velmor_a", "_http._tcp", "a", 18080) + "\"master:1\"";
    ASSERT_TRUE(viewContains("b", "_ravenna._sub._http._tcp", line))
        << view("b", "_ravenna._sub._http._tcp") << engine.log();
    EXPECT_NE(engine.log().find("Engine: DNS-SD registered \"_velmor_a\" on port 18080"),
              std::string::npos)
        << engine.log();

    // The role stops the engine once its parent is gone; the announcement goes with it.
    engine.parent->kill(SIGKILL);
    EXPECT_EQ(engine.process->wait(20s), 0) << engine.log() << engine.process->errors();
    EXPECT_TRUE(viewLacks("b", "_ravenna._sub._http._tcp", "_velmor_a", 5s));
    EXPECT_EQ(engine.log().find("zeroconf_category"), std::string::npos) << engine.log();
}

TEST_F(ZeroconfNetwork, EngineNameIsTheShortHostNameCutUnder64BytesWithoutTxtUnlessMaster) {
    // Linux keeps host names to 64 bytes; a 58-byte label makes a 66-byte instance name.
    const std::string label(58, 'h');
    Engine engine = startEngine("a", 18081, false, label + ".lan");
    // "_velmor_" and 55 bytes of the first label: 63 bytes.
    const std::string name = "_velmor_" + label.substr(0, 55);
    // No TXT entries: the line ends after the port.
    ASSERT_TRUE(viewContains("b", "_ravenna._sub._http._tcp",
                             resolvedLine(name, "_http._tcp", "a", 18081) + "\n"))
        << view("b", "_ravenna._sub._http._tcp") << engine.log();
    EXPECT_NE(engine.log().find("registered \"" + name + "\""), std::string::npos) << engine.log();
    EXPECT_EQ(engine.log().find("zeroconf_category"), std::string::npos) << engine.log();
}

TEST_F(ZeroconfNetwork, EngineStoppedAndStartedAgainIsAnnouncedAgain) {
    HostTool engine(*net_, "a", {"engine", "3"}, {"VELMOR_ENGINE_PORT=18082"});
    const std::string type = "_ravenna._sub._http._tcp";
    const std::string line = resolvedLine("_velmor_a", "_http._tcp", "a", 18082) + "\"master:1\"";
    ASSERT_TRUE(engine.waitFor("ready")) << engine.log();
    ASSERT_TRUE(viewContains("b", type, line)) << view("b", type) << engine.log();

    engine.signal(SIGUSR1);
    ASSERT_TRUE(engine.waitFor("stopped")) << engine.log();
    EXPECT_TRUE(viewLacks("b", type, "_velmor_a", 5s)) << view("b", type);

    engine.signal(SIGUSR1);
    ASSERT_TRUE(engine.waitFor("started")) << engine.log();
    ASSERT_TRUE(viewContains("b", type, line)) << view("b", type) << engine.log();
    EXPECT_EQ(engine.finish(), 0) << engine.log();
    std::string log = engine.log();
    std::size_t registered = 0;
    for (std::size_t at = log.find("DNS-SD registered"); at != std::string::npos;
         at = log.find("DNS-SD registered", at + 1))
        ++registered;
    EXPECT_EQ(registered, 2u) << log;
}

TEST_F(ZeroconfNetwork, EngineRunsWithoutADaemonAndSaysSo) {
    killAvahi("a");
    Engine engine = startEngine("a", 18083, true);
    ASSERT_TRUE(eventually([&] { return engine.log().find("not announced") != std::string::npos; }))
        << engine.log() << engine.process->errors();
    EXPECT_NE(engine.log().find("Engine: DNS-SD unavailable"), std::string::npos) << engine.log();
    std::string status;
    EXPECT_TRUE(eventually([&] {
        net_->run("a",
                  "curl -s -o /dev/null -w '%{http_code}' --noproxy '*' -u anon:anon "
                  "-d '{\"Path\": \"$\"}' http://127.0.0.1:18083/get",
                  &status);
        return status == "200";
    })) << status;
    engine.parent->kill(SIGKILL);
    EXPECT_EQ(engine.process->wait(20s), 0) << engine.log() << engine.process->errors();
}

TEST_F(ZeroconfNetwork, DaemonKilledAndRestartedUnderAnOpenBrowse) {
    publish("a", {"Survivor", "_velmortest._tcp", "4713"});
    HostTool browser(*net_, "b", {"browse", "_velmortest._tcp"});
    ASSERT_TRUE(browser.waitForAdd("Survivor")) << browser.log();

    killAvahi("b");
    ASSERT_TRUE(eventually([&] {
        return browser.log().find("zeroconf_category: errorCode = ") != std::string::npos;
    })) << browser.log();
    // A dead daemon's socket must not keep the poll thread busy.
    long long before = browser.pollThreadCpu();
    std::this_thread::sleep_for(1s);
    long long after = browser.pollThreadCpu();
    ASSERT_GE(before, 0) << browser.log();
    EXPECT_LT(after - before, 50'000'000) << "poll thread CPU in ns over 1 s";
    EXPECT_TRUE(browser.running());

    restartAvahi("b");
    browser.signal(SIGUSR1);
    ASSERT_TRUE(browser.waitFor("ready", 2)) << browser.log();
    ASSERT_TRUE(browser.waitForAdd("Survivor", 2)) << browser.log();
    Added again = browser.adds("Survivor").back();
    EXPECT_EQ(again.address, net_->address("a"));
    EXPECT_EQ(again.port, 4713);
    EXPECT_EQ(browser.finish(), 0) << browser.log();
    EXPECT_EQ(browser.reports("done").size(), 1u);
}

}  // namespace
