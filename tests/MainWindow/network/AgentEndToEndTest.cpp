// The real agent program end to end on two test hosts: the engine server on A; on B the agent
// started as a user starts it (no arguments) under Xvfb, on a session bus of its own with a
// recording notification service, and with a recording xdg-open. Without a tray, then with a
// StatusNotifierItem tray on that bus; a second agent and a headless browser on B; and a Master
// agent whose engine child keeps dying.

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "AgentOnHost.h"

using namespace std::chrono_literals;
using vlm::test::Child;
using vlm::test::EngineOnHost;
using vlm::test::eventually;
using vlm::test::exists;
using vlm::test::readFile;
using vlm::test::shellQuote;
using vlm::test::TempDir;
using vlm::test::TestNet;
using vlm::test::withoutColours;
using vlm::test::writeFile;

namespace {

constexpr int kPort = 18080;
// The splash stays about five seconds; the deadlines leave room for a slow machine.
constexpr auto kAttachTimeout = 30s;
constexpr auto kPoll = 20ms;
constexpr int kScreenWidth = 1024;
constexpr int kScreenHeight = 768;

/// A program on a test host, asked to end (SIGTERM) before it is killed, so that it can clean
/// up: Xvfb removes its lock and socket from the /tmp the hosts share with this machine.
class HostProgram {
public:
    HostProgram(const TestNet& net, const std::string& host, const std::string& command)
        : child_(net.start(host, {"sh", "-c", "exec " + command})) {}
    ~HostProgram() { end(); }
    HostProgram(const HostProgram&) = delete;
    HostProgram& operator=(const HostProgram&) = delete;

    /// Its exit status, or -signal.
    std::optional<int> end(std::chrono::milliseconds grace = 5s) {
        child_->kill(SIGTERM);
        std::optional<int> status = child_->wait(grace);
        if (!status) {
            child_->kill(SIGKILL);
            status = child_->wait(5s);
        }
        return status;
    }
    bool running() { return !child_->wait(0ms).has_value(); }
    Child& child() { return *child_; }
    std::string output() const { return child_->output(); }
    std::string errors() const { return child_->errors(); }

private:
    std::unique_ptr<Child> child_;
};

/// The complete lines of text (a line still being written is left out).
std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> found;
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        found.push_back(text.substr(at, end - at));
    return found;
}

/// A display number no X server of this machine holds: the hosts share its /tmp.
int freeDisplay() {
    constexpr int kFirst = 400;
    constexpr int kCount = 500;
    for (int tries = 0, n = getpid() % kCount; tries < kCount; ++tries, n = (n + 1) % kCount) {
        const std::string number = std::to_string(kFirst + n);
        if (!exists("/tmp/.X" + number + "-lock") && !exists("/tmp/.X11-unix/X" + number))
            return kFirst + n;
    }
    return -1;
}

/// Processes of this machine whose command line holds text.
std::vector<pid_t> processesWith(const std::string& text) {
    std::vector<pid_t> found;
    DIR* proc = opendir("/proc");
    if (!proc)
        return found;
    while (dirent* entry = readdir(proc)) {
        const std::string name = entry->d_name;
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::string commandLine = readFile("/proc/" + name + "/cmdline");
        if (commandLine.find(text) != std::string::npos)
            found.push_back(static_cast<pid_t>(std::stol(name)));
    }
    closedir(proc);
    return found;
}

/// How many splash windows host's display shows (top-level VELMOR windows larger than
/// 300x200); nullopt when the display cannot be read.
std::optional<int> splashWindows(const TestNet& net, const std::string& host, int display) {
    std::string tree;
    if (net.run(host, "xwininfo -display :" + std::to_string(display) + " -root -tree 2>/dev/null",
                &tree) != 0)
        return std::nullopt;
    const std::string topLevel = "(\"VELMOR\" \"VELMOR\")";
    int count = 0;
    for (const std::string& line : lines(tree)) {
        const std::size_t at = line.find(topLevel);
        int width = 0;
        int height = 0;
        if (at != std::string::npos &&
            std::sscanf(line.c_str() + at + topLevel.size(), " %dx%d", &width, &height) == 2 &&
            width > 300 && height > 200)
            ++count;
    }
    return count;
}

/// A PNG picture of width x height, by its signature and header chunk.
bool isPng(const std::string& path, std::uint32_t width, std::uint32_t height) {
    const std::string data = readFile(path);
    if (data.size() < 24 || data.compare(0, 8, "\x89PNG\r\n\x1a\n") != 0 ||
        data.compare(12, 4, "IHDR") != 0)
        return false;
    auto number = [&](std::size_t at) {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < 4; ++i)
            value = value << 8 | static_cast<unsigned char>(data[at + i]);
        return value;
    };
    return number(16) == width && number(20) == height;
}

/// The folders of host B's user, and the command that starts an agent there.
struct UserOnHost {
    UserOnHost(int display, int mode) {
        namespace fs = std::filesystem;
        fs::create_directories(dir.file("appdata/Corvane Technologies/velmor"));
        writeFile(dir.file("appdata/Corvane Technologies/velmor/config.json"),
                  "{\"mode\": " + std::to_string(mode) + "}");
        fs::create_directories(dir.file("common"));
        fs::create_directories(dir.file("bin"));
        mkdir(dir.file("runtime").c_str(), 0700);
        chmod(dir.file("runtime").c_str(), 0700);
        // The first xdg-open on the PATH is what Qt runs to open a web page.
        writeFile(dir.file("bin/xdg-open"),
                  "#!/bin/sh\nenv >" + shellQuote(dir.file("browser.env")) +
                      "\nprintf '%s\\n' \"$1\" >>" + shellQuote(opened()) + "\n");
        chmod(dir.file("bin/xdg-open").c_str(), 0755);
        writeFile(dir.file("bus.conf"),
                  vlm::test::sessionBusConfig("unix:path=" + dir.file("bus")));

        // Qt's own xcb platform, with no desktop's platform theme taking over the opening.
        agentCommand =
            "env -u VELMOR_DNSSD_LIBRARY -u QT_QPA_PLATFORM -u WAYLAND_DISPLAY" +
            std::string(" -u QT_QPA_PLATFORMTHEME -u XDG_CURRENT_DESKTOP") +
            " -u VELMOR_THEME -u VELMOR_ENGINE_PORT DISPLAY=:" + std::to_string(display) +
            " APPDATA=" + shellQuote(dir.file("appdata")) +
            " VELMOR_COMMON_APPDATA=" + shellQuote(dir.file("common")) +
            " XDG_RUNTIME_DIR=" + shellQuote(dir.file("runtime")) +
            " DBUS_SESSION_BUS_ADDRESS=" + shellQuote(busAddress()) +
            " PATH=" + shellQuote(dir.file("bin")) + ":\"$PATH\" " +
            shellQuote(vlm::test::velmorPath());
    }
    std::string opened() const { return dir.file("opened"); }
    std::vector<std::string> openedUrls() const { return lines(readFile(opened())); }
    std::string busAddress() const { return "unix:path=" + dir.file("bus"); }

    TempDir dir;
    std::string agentCommand;
};

/// \brief Hosts A and B, the engine on A, and on B an X server and a session bus with the
/// recording notification service (and, when asked, a StatusNotifierItem tray).
class AgentEndToEnd : public ::testing::Test {
protected:
    /// mode: the agent's; Slave (the default) runs no engine, so it can only attach to A's.
    /// engineOnA: whether host A runs an engine at all.
    void up(bool tray, int mode = 2, bool engineOnA = true) {
        net_ = std::make_unique<TestNet>(std::vector<std::string>{"a", "b"});
        ASSERT_TRUE(net_->ok()) << net_->error();
        if (engineOnA) {
            engine_ = std::make_unique<EngineOnHost>(*net_, "a", kPort, true);
            ASSERT_TRUE(engine_->announced()) << engine_->log();
        }
        server = net_->address("a") + ":" + std::to_string(kPort);
        webApp = "http://" + server;

        display = freeDisplay();
        ASSERT_GT(display, 0) << "no free X display number";
        user = std::make_unique<UserOnHost>(display, mode);
        xvfb_ = std::make_unique<HostProgram>(
            *net_, "b",
            "Xvfb :" + std::to_string(display) + " -screen 0 " + std::to_string(kScreenWidth) +
                "x" + std::to_string(kScreenHeight) + "x24 -nolisten tcp");
        bus_ = std::make_unique<HostProgram>(
            *net_, "b",
            "dbus-daemon --config-file=" + shellQuote(user->dir.file("bus.conf")) +
                " --nofork --nopidfile --nosyslog");
        const std::string probe =
            "xdpyinfo -display :" + std::to_string(display) + " >/dev/null 2>&1";
        ASSERT_TRUE(eventually([&] { return net_->run("b", probe) == 0 || !xvfb_->running(); }, 15s,
                               kPoll));
        ASSERT_TRUE(xvfb_->running()) << xvfb_->errors();
        ASSERT_TRUE(eventually([&] { return exists(user->dir.file("bus")) || !bus_->running(); },
                               10s, kPoll));
        ASSERT_TRUE(bus_->running()) << bus_->errors();
        recorder_ = std::make_unique<HostProgram>(*net_, "b",
                                                  shellQuote(NOTIFICATION_RECORDER) + " " +
                                                      shellQuote(user->busAddress()) +
                                                      (tray ? " --tray" : ""));
        ASSERT_TRUE(eventually(
            [&] { return recorder_->output().find("ready\n") == 0 || !recorder_->running(); }, 10s,
            kPoll));
        ASSERT_TRUE(recorder_->running()) << recorder_->errors();
    }
    void TearDown() override {
        agent.reset();
        recorder_.reset();
        bus_.reset();
        if (xvfb_) {
            EXPECT_TRUE(xvfb_->end().has_value());
            EXPECT_FALSE(exists("/tmp/.X" + std::to_string(display) + "-lock"));
        }
        xvfb_.reset();
        engine_.reset();
        net_.reset();
    }

    /// The agent as a user starts it (no arguments), attached to attachedTo (the engine on A
    /// when empty).
    void startAgent(std::string attachedTo = {}) {
        if (attachedTo.empty())
            attachedTo = server;
        agent = std::make_unique<HostProgram>(*net_, "b", user->agentCommand);
        // A real window on the X display: the splash, while the agent looks for a server.
        EXPECT_TRUE(eventually([&] { return splash() == 1 || !agent->running(); }, 15s, kPoll))
            << log() << agent->errors();
        ASSERT_TRUE(eventually(
            [&] { return logHas("Attached to " + attachedTo + "\n") || !agent->running(); },
            kAttachTimeout, kPoll))
            << log() << agent->errors();
        ASSERT_TRUE(agent->running()) << log() << agent->errors();
    }

    std::string log() const { return withoutColours(agent->output()); }
    bool logHas(const std::string& line) const { return log().find(line) != std::string::npos; }
    std::optional<int> splash() const { return splashWindows(*net_, "b", display); }
    /// The recorder's lines after "ready", of one kind: Notify calls, or with "item" the tray
    /// icons registered.
    std::vector<std::string> recorded(bool items = false) const {
        std::vector<std::string> found;
        for (const std::string& line : lines(recorder_->output()))
            if (line != "ready" && (line.rfind("item\t", 0) == 0) == items)
                found.push_back(line);
        return found;
    }

    std::string server;
    std::string webApp;
    int display = -1;
    std::unique_ptr<UserOnHost> user;
    std::unique_ptr<HostProgram> agent;
    std::unique_ptr<TestNet> net_;

private:
    std::unique_ptr<EngineOnHost> engine_;
    std::unique_ptr<HostProgram> xvfb_;
    std::unique_ptr<HostProgram> bus_;
    std::unique_ptr<HostProgram> recorder_;
};

TEST_F(AgentEndToEnd, AgentWithoutTrayAttachesOpensTheWebAppNotifiesAndServesTheBrowser) {
    up(false);
    startAgent();
    if (HasFatalFailure())
        return;
    TestNet& net = *net_;
    auto notifications = [&] { return recorded(); };
    // No tray host: the balloon goes to the notification service and to the log.
    const std::string found = "VELMOR\t\tServer Found\tAttached to " + server + "\t10000";
    EXPECT_TRUE(eventually([&] { return !notifications().empty(); }, 10s, kPoll)) << log();
    EXPECT_TRUE(logHas("Server Found: Attached to " + server + "\n")) << log();
    EXPECT_TRUE(eventually([&] { return !user->openedUrls().empty(); }, 10s, kPoll)) << log();
    // The web app is opened once for an attachment: nothing more comes, the end of the
    // start-up included.
    EXPECT_TRUE(eventually([&] { return splash() == 0; }, kAttachTimeout, kPoll)) << log();
    EXPECT_FALSE(eventually([&] { return user->openedUrls().size() > 1; }, 1s, kPoll));
    EXPECT_EQ(user->openedUrls(), std::vector<std::string>{webApp});
    EXPECT_EQ(notifications(), std::vector<std::string>{found});
    // No GL driver in the agent, and the browser gets the user's environment untouched.
    const std::string maps = readFile("/proc/" + std::to_string(agent->child().pid()) + "/maps");
    EXPECT_NE(maps.find("libQt5XcbQpa"), std::string::npos);
    EXPECT_EQ(maps.find("/dri/"), std::string::npos);
    EXPECT_EQ(maps.find("libLLVM"), std::string::npos);
    const std::string browserEnvironment = readFile(user->dir.file("browser.env"));
    EXPECT_NE(browserEnvironment.find("\nDISPLAY=:"), std::string::npos) << browserEnvironment;
    EXPECT_EQ(browserEnvironment.find("QT_XCB_GL_INTEGRATION"), std::string::npos);

    // A second agent hands the first its request and leaves by itself.
    const auto secondStarted = std::chrono::steady_clock::now();
    HostProgram second(net, "b", user->agentCommand);
    const std::optional<int> secondStatus = second.child().wait(10s);
    const auto secondTook = std::chrono::steady_clock::now() - secondStarted;
    ASSERT_TRUE(secondStatus.has_value()) << "the second agent did not leave\n"
                                          << withoutColours(second.output()) << second.errors();
    EXPECT_EQ(*secondStatus, 0) << second.errors();
    EXPECT_LT(secondTook, 5s);
    EXPECT_EQ(withoutColours(second.output()).find("Velmor Agent"), std::string::npos)
        << "the second agent ran as an agent";
    EXPECT_TRUE(eventually([&] { return user->openedUrls().size() >= 2; }, 10s, kPoll)) << log();
    EXPECT_EQ(user->openedUrls(), (std::vector<std::string>{webApp, webApp}));
    EXPECT_TRUE(logHas("Another agent asked to show the web application\n")) << log();

    // A browser on host B shows what the agent opened: the engine's own status page.
    ASSERT_EQ(net.run("b", "command -v chromium >/dev/null"), 0)
        << "chromium is missing (tools/setup.sh installs it)";
    const std::string profile = user->dir.file("browser-profile");
    const std::string picture = user->dir.file("page.png");
    std::string dom;
    // Root needs --no-sandbox; no session bus, so the recorder sees only the agent.
    const int browserStatus = net.run(
        "b",
        "exec env -u DBUS_SESSION_BUS_ADDRESS timeout -k 5 60 chromium --headless --no-sandbox"
        " --disable-gpu --no-first-run --disable-background-networking --user-data-dir=" +
            shellQuote(profile) + " --window-size=" + std::to_string(kScreenWidth) + "," +
            std::to_string(kScreenHeight) + " --screenshot=" + shellQuote(picture) +
            " --dump-dom " + shellQuote(webApp + "/") + " 2>" +
            shellQuote(user->dir.file("browser.log")),
        &dom);
    EXPECT_EQ(browserStatus, 0) << readFile(user->dir.file("browser.log"));
    EXPECT_NE(dom.find("<title>VELMOR Engine</title>"), std::string::npos) << dom;
    EXPECT_NE(dom.find("<h1>VELMOR Engine</h1>"), std::string::npos) << dom;
    EXPECT_NE(dom.find("The engine is running on port " + std::to_string(kPort) + " as master."),
              std::string::npos)
        << dom;
    EXPECT_TRUE(isPng(picture, kScreenWidth, kScreenHeight))
        << readFile(user->dir.file("browser.log"));
    // The browser's helpers go with it; any left behind are ended here.
    EXPECT_TRUE(eventually([&] { return processesWith(profile).empty(); }, 5s, kPoll));
    for (pid_t pid : processesWith(profile))
        kill(pid, SIGKILL);

    // Logging out (SIGTERM) ends the first agent as "&Quit" does.
    EXPECT_EQ(agent->end(10s), 0) << agent->errors();
    EXPECT_TRUE(logHas("Asked to end: quitting\n")) << log();
    EXPECT_FALSE(exists(user->dir.file("runtime/velmor_agent_singleton")));
    EXPECT_EQ(notifications(), std::vector<std::string>{found});
    EXPECT_TRUE(recorded(true).empty());
}

// The engine child of a Master agent dies: the tray restarts it once; when the restarted one
// dies within 30 s too, the user is told and no further attempt is made.
TEST_F(AgentEndToEnd, ALocalEngineThatDiesIsRestartedOnceThenGivenUp) {
    // No engine on A: when its own engine goes, a Master takes any other master there is.
    up(false, 1, false);
    // A route, as a desktop has, for the endpoint probe to find B's own address.
    ASSERT_EQ(net_->run("b", "ip route add default dev eth0"), 0);
    const std::string own = net_->address("b") + ":8080";
    startAgent(own);
    if (HasFatalFailure())
        return;
    const std::string child = std::string("--apid\0", 7) + std::to_string(agent->child().pid());
    auto engines = [&] { return processesWith(child); };
    auto count = [&](const std::string& line) {
        const std::string text = log();
        int found = 0;
        for (std::size_t at = text.find(line); at != std::string::npos;
             at = text.find(line, at + 1))
            ++found;
        return found;
    };

    ASSERT_EQ(engines().size(), 1u) << log();
    const pid_t first = engines().front();
    kill(first, SIGKILL);
    ASSERT_TRUE(
        eventually([&] { return engines().size() == 1 && engines().front() != first; }, 15s, kPoll))
        << log();
    EXPECT_EQ(count("Trying to restart Engine process...\n"), 1) << log();
    // The restarted engine is found again at the same address: no second browser opening.
    EXPECT_TRUE(eventually([&] { return count("Attached to " + own + "\n") == 2; }, 15s, kPoll))
        << log();

    kill(engines().front(), SIGKILL);
    EXPECT_TRUE(eventually(
        [&] { return count("Engine Process dies rapidly. No further attempt to restart\n") == 1; },
        15s, kPoll))
        << log();
    const std::string died =
        "VELMOR\t\tLocal Server Died\tNo further attempts to revive local server as it crashes "
        "rapidly\t10000";
    EXPECT_TRUE(eventually(
        [&] {
            const auto calls = recorded();
            return std::find(calls.begin(), calls.end(), died) != calls.end();
        },
        10s, kPoll));
    const auto calls = recorded();
    EXPECT_NE(std::find(calls.begin(), calls.end(),
                        "VELMOR\t\tServer Lost\tDetached from " + own + "\t10000"),
              calls.end());
    EXPECT_FALSE(eventually([&] { return !engines().empty(); }, 1s, kPoll));
    EXPECT_EQ(count("Trying to restart Engine process...\n"), 1) << log();
    EXPECT_EQ(user->openedUrls(), std::vector<std::string>{"http://" + own}) << log();
    EXPECT_TRUE(agent->running());
}

// Where the desktop shows a tray, the balloon is the tray icon's own message, with the
// Information icon, and the log is left alone.
TEST_F(AgentEndToEnd, WithATrayBalloonsAreTheTrayIconsMessages) {
    up(true);
    startAgent();
    if (HasFatalFailure())
        return;
    EXPECT_TRUE(eventually([&] { return !recorded().empty(); }, 10s, kPoll)) << log();
    EXPECT_EQ(recorded(), std::vector<std::string>{"VELMOR\tdialog-information\tServer "
                                                   "Found\tAttached to " +
                                                   server + "\t10000"});
    EXPECT_EQ(recorded(true).size(), 1u);
    EXPECT_FALSE(logHas("Server Found: ")) << log();
    EXPECT_TRUE(eventually([&] { return !user->openedUrls().empty(); }, 10s, kPoll)) << log();
    EXPECT_TRUE(eventually([&] { return splash() == 0; }, kAttachTimeout, kPoll)) << log();
    EXPECT_EQ(agent->end(10s), 0) << agent->errors();
}

}  // namespace
