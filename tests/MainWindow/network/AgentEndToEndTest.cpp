// The real agent program on a test host, started as a user does (no arguments) under Xvfb with no
// tray, a session bus watched by dbus-monitor and a recording xdg-open: a Master agent attaches to
// its own engine, opens the web application once and again for a second agent, and lives in its
// main window until "&Quit".

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "ProgramsOnHost.h"

using namespace std::chrono_literals;
using namespace vlm::test;

namespace {

constexpr auto kPoll = 20ms;

/// A program on host B, asked to end before it is killed: Xvfb then removes its lock and socket
/// from the /tmp the hosts share with this machine.
struct HostProgram {
    HostProgram(const TestNet& net, const std::string& command)
        : child(net.start("b", {"sh", "-c", "exec " + command})) {}
    ~HostProgram() {  // ~Child kills what is left
        child->kill(SIGTERM);
        child->wait(10s);
    }
    std::unique_ptr<Child> child;
};

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(AgentEndToEnd, MasterAgentWithoutATray) {
    TestNet net({"a", "b"});
    ASSERT_TRUE(net.ok()) << net.error();
    // A route, as a desktop has, for the endpoint probe to find B's own address.
    ASSERT_EQ(net.run("b", "ip route add default dev eth0"), 0);
    const std::string own = net.address("b") + ":8080";
    const std::string webApp = "http://" + own + "\n";
    int display = 400 + getpid() % 500;  // the hosts share this machine's /tmp
    while (exists("/tmp/.X" + std::to_string(display) + "-lock"))
        ++display;
    const std::string x = ":" + std::to_string(display);

    ProgramFolders folders;
    const TempDir& dir = folders.dir;
    std::filesystem::create_directories(dir.file("appdata/Corvane Technologies/velmor"));
    std::filesystem::create_directories(dir.file("bin"));
    writeFile(dir.file("appdata/Corvane Technologies/velmor/config.json"), R"({"mode": 1})");
    // The first xdg-open on the PATH is what Qt runs to open a web page.
    writeFile(dir.file("bin/xdg-open"),
              "#!/bin/sh\nenv >\"$0.env\"\necho \"$1\" >>\"$0.opened\"\n");
    chmod(dir.file("bin/xdg-open").c_str(), 0755);
    writeFile(dir.file("bus.conf"), sessionBusConfig("unix:path=" + dir.file("bus")));
    HostProgram xvfb(net, "Xvfb " + x + " -screen 0 1024x768x24 -nolisten tcp");
    HostProgram bus(net, "dbus-daemon --nofork --config-file=" + shellQuote(dir.file("bus.conf")));
    ASSERT_TRUE(eventually(
        [&] {
            return !net.run("b", "xdpyinfo -display " + x + " >/dev/null") &&
                   exists(dir.file("bus"));
        },
        15s, kPoll));
    // The notification service's calls as the bus sees them: no service needs to answer.
    HostProgram monitor(net, "dbus-monitor --address unix:path=" + shellQuote(dir.file("bus")) +
                                 " interface=org.freedesktop.Notifications");
    ASSERT_TRUE(monitor.child->waitForOutput("member=NameLost", 10s)) << monitor.child->errors();
    auto notified = [&] { return monitor.child->output(); };
    auto opened = [&] { return readFile(dir.file("bin/xdg-open.opened")); };

    // Qt's own xcb platform, with no desktop's platform theme taking over the opening.
    const std::string command =
        "env -u VELMOR_DNSSD_LIBRARY -u QT_QPA_PLATFORM -u WAYLAND_DISPLAY -u QT_QPA_PLATFORMTHEME"
        " -u XDG_CURRENT_DESKTOP -u VELMOR_THEME -u VELMOR_ENGINE_PORT DISPLAY=" +
        x + " APPDATA=" + shellQuote(dir.file("appdata")) +
        " VELMOR_COMMON_APPDATA=" + shellQuote(dir.file("common")) +
        " XDG_RUNTIME_DIR=" + shellQuote(dir.file("runtime")) +
        " DBUS_SESSION_BUS_ADDRESS=unix:path=" + shellQuote(dir.file("bus")) +
        " PATH=" + shellQuote(dir.file("bin")) + ":\"$PATH\" " + shellQuote(velmorPath());
    HostProgram agent(net, command);
    auto log = [&] { return withoutColours(agent.child->output()); };
    ASSERT_TRUE(eventually([&] { return has(log(), "  Attached to " + own + "\n"); }, 30s, kPoll))
        << log();

    // No tray host: the balloon goes to the notification service and to the log; the web
    // application opens once.
    const std::string found =
        "string \"VELMOR\"\n   uint32 0\n   string \"\"\n   string \"Server "
        "Found\"\n   string \"Attached to " +
        own + "\"\n   array [\n   ]\n   array [\n   ]\n   int32 10000\n";
    EXPECT_TRUE(eventually([&] { return has(notified(), found); }, 10s, kPoll)) << notified();
    EXPECT_EQ(notified().find("member=Notify"), notified().rfind("member=Notify"));  // only one
    EXPECT_TRUE(eventually([&] { return opened() == webApp; }, 10s, kPoll)) << log();
    // No GL driver in the agent, its texts in Carlito, and the browser gets the user's
    // environment untouched.
    const std::string maps = readFile("/proc/" + std::to_string(agent.child->pid()) + "/maps");
    EXPECT_TRUE(!has(maps, "/dri/") && has(maps, "Carlito"));
    EXPECT_FALSE(has(readFile(dir.file("bin/xdg-open.env")), "QT_XCB_GL_INTEGRATION"));

    // A second agent hands the first its request and leaves by itself.
    HostProgram second(net, command);
    EXPECT_EQ(second.child->wait(10s), 0) << second.child->errors();
    EXPECT_TRUE(eventually([&] { return opened() == webApp + webApp; }, 10s, kPoll)) << log();

    // "&Quit" in its main window's menu bar ends the agent (its close button: the tray test).
    net.run("b", "export DISPLAY=" + x +
                     "; timeout 10 xdotool search --sync --onlyvisible --name '^VELMOR$' "
                     "windowfocus --sync key alt+q");
    EXPECT_EQ(agent.child->wait(10s), 0) << log() << agent.child->errors();
    EXPECT_FALSE(exists(dir.file("runtime/velmor_agent_singleton")));
}

}  // namespace
