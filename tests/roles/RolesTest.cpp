// The executable's three roles as whole processes, in temporary per-user and machine-wide
// folders, and the agent's single-instance guard.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using vlm::test::Child;

const std::string kAgentRoad = "Inner Troubleshooting Logger";  // the agent's banner
const std::string kShowRequest = "Another agent asked to show the web application";
const std::string kNoGuard = "No single-instance guard";

// A socket listening at path, or with connectTo one that sent the show request there.
int unixSocket(const std::string& path, bool connectTo) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    auto* at = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(connectTo ? connect(fd, at, sizeof address) : bind(fd, at, sizeof address), 0)
        << path;
    chmod(path.c_str(), 0777);  // anyone may connect
    EXPECT_EQ(connectTo ? write(fd, "\0\0\0\0", 4) : listen(fd, 4), connectTo ? 4 : 0);
    return fd;
}

class Roles : public ::testing::Test {
protected:
    void SetUp() override { chmod(temp.path().c_str(), 01777); }  // a shared temporary folder
    std::unique_ptr<Child> start(const std::vector<std::string>& args, const char* user = nullptr) {
        std::vector<std::string> all = args;
        if (user)  // another user id: through setpriv, as root
            all.insert(all.begin(), {"--reuid=" + std::string(user), "--regid=nogroup",
                                     "--clear-groups", vlm::test::velmorPath()});
        return std::make_unique<Child>(user ? "/usr/bin/setpriv" : vlm::test::velmorPath(), all,
                                       env, outputs.path());
    }
    std::string appFolder() const { return appData.path() + "/Corvane Technologies/velmor"; }

    vlm::test::TempDir appData, common, runtime, outputs, temp;
    unsigned short port = vlm::test::freeLoopbackPort();
    // No DNS-SD here: the machine's own network must not see test engines.
    std::map<std::string, std::string> env = {
        {"APPDATA", appData.path()},
        {"VELMOR_COMMON_APPDATA", common.path()},
        {"XDG_RUNTIME_DIR", runtime.path()},
        {"TMPDIR", temp.path()},
        {"QT_QPA_PLATFORM", "offscreen"},
        {"VELMOR_ENGINE_PORT", std::to_string(port)},
        {"VELMOR_DNSSD_LIBRARY", "/nonexistent/libvelmor_dnssd.so"}};
};

// Each role runs on a configuration file it cannot use and leaves it as it was: the engine
// server while its parent lives (a zombie parent has ended; a port in use ends it with 0), the
// agent up to its banner.
TEST_F(Roles, EveryRoleRunsOnABrokenFile) {
    const std::string broken = "\xff\xfe{\"mode\": 4,";
    fs::create_directories(appFolder());
    vlm::test::writeFile(appFolder() + "/config.json", broken);
    Child parent("/bin/sleep", {"1000"}, {}, outputs.path());
    auto server = start({"--server", "1", "--apid", std::to_string(parent.pid())});
    ASSERT_TRUE(vlm::test::waitForEngine(port, 10s)) << server->output();
    EXPECT_EQ(start({"--serverd", "1"})->wait(10s), 0);  // the port is in use
    EXPECT_FALSE(server->wait(0ms).has_value());
    parent.kill(SIGKILL);
    parent.wait(5s);
    EXPECT_EQ(server->wait(12s), 0) << server->output();
    EXPECT_FALSE(vlm::test::waitForEngine(port, 0ms));

    const pid_t zombie = fork();
    if (zombie == 0)
        _exit(0);
    auto orphan = start({"--server=1", "--apid=" + std::to_string(zombie)});
    EXPECT_EQ(orphan->wait(8s), 0) << orphan->output();
    waitpid(zombie, nullptr, 0);  // reaped only once the role has ended

    EXPECT_TRUE(start({})->waitForOutput(kAgentRoad, 10s));
    EXPECT_EQ(vlm::test::readFile(appFolder() + "/config.json"), broken);
}

// Parser errors end with 1 before any role; values that are not role numbers take the agent
// road ("server" set means "serverd" is never read).
TEST_F(Roles, CommandLine) {
    const std::pair<std::vector<std::string>, int> cases[] = {
        {{"--server"}, 1},
        {{"--bogus", "1"}, 1},
        {{"--help"}, 1},
        {{"--server", "0", "--serverd", "1"}, 0},
        {{"--serverd", "yes"}, 0}};
    for (const auto& [args, status] : cases) {
        auto process = start(args);
        if (status == 1) {
            EXPECT_EQ(process->wait(10s), 1) << args.front();
            EXPECT_EQ(process->output().find(kAgentRoad), std::string::npos);
        } else {
            EXPECT_TRUE(process->waitForOutput(kAgentRoad, 10s)) << args.back();
            EXPECT_FALSE(vlm::test::waitForEngine(port, 200ms)) << args.back();
        }
    }
}

// Where the guard's folder is not private to the user, the agent runs without the hand-over and
// says so once; a socket of another user found there is never used (nor ours by an agent of
// nobody), one left by a crashed agent never disables the guard.
TEST_F(Roles, SingleInstanceFolderIsPrivate) {
    fs::create_directories(appFolder());
    vlm::test::writeFile(appFolder() + "/config.json", R"({"mode": null})");  // no engine child
    for (const std::string& folder : {appData.path(), outputs.path(), appFolder()})
        chmod(folder.c_str(), 0777);
    auto fallback = [&](int uid) { return temp.path() + "/velmor-" + std::to_string(uid); };
    // The folder of uid made by owner with mode, with a socket of root's listening in it.
    auto stranger = [&](int uid, int owner, int mode) {
        mkdir(fallback(uid).c_str(), mode);
        chown(fallback(uid).c_str(), owner, owner);
        return unixSocket(fallback(uid) + "/velmor_agent_singleton", false);
    };
    struct Case {
        const char* name;
        std::function<int()> make;  // the stranger's socket, or -1
        const char* user;
        bool handOver;
    } cases[] = {
        // clang-format off
        {"own fallback folder", [] { return -1; }, nullptr, true},
        {"left by a crashed agent", [&] { close(stranger(0, 0, 0700)); return -1; }, nullptr, true},
        {"fallback of another user", [&] { return stranger(0, 65534, 0700); }, nullptr, false},
        {"fallback open to others", [&] { return stranger(0, 0, 0755); }, nullptr, false},
        {"runtime folder of another user", [&] { env["XDG_RUNTIME_DIR"] = runtime.path(); chown(runtime.path().c_str(), 65534, 65534); return -1; }, nullptr, false},
        {"our socket in the folder of nobody", [&] { return stranger(65534, 65534, 0700); }, "nobody", true},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        env.erase("XDG_RUNTIME_DIR");
        for (int uid : {0, 65534})
            fs::remove_all(fallback(uid));
        const int strangerSocket = c.make();
        auto first = start({}, c.user);
        ASSERT_TRUE(first->waitForOutput(kAgentRoad, 10s)) << first->output() << first->errors();
        const std::string out = first->output();
        EXPECT_EQ(out.find(kNoGuard) == std::string::npos, c.handOver) << out;
        EXPECT_EQ(out.find(kNoGuard), out.rfind(kNoGuard));
        if (c.user) {  // a request from another user (root) is not acted on
            close(unixSocket(fallback(65534) + "/velmor_agent_singleton", true));
            EXPECT_FALSE(first->waitForOutput(kShowRequest, 300ms));
        }
        // A second agent hands over: it leaves silently with 0 about a second later.
        const auto started = std::chrono::steady_clock::now();
        auto second = start({}, c.user);
        if (c.handOver) {
            EXPECT_EQ(second->wait(10s), 0);
            EXPECT_GE(std::chrono::steady_clock::now() - started, 1s);
            EXPECT_EQ(second->output(), "");
            EXPECT_TRUE(first->waitForOutput(kShowRequest, 5s)) << first->output();
        } else {
            EXPECT_TRUE(second->waitForOutput(kAgentRoad, 10s));
        }
        if (strangerSocket >= 0) {  // it may connect to learn whose it is, but sends nothing
            const int peer = accept(strangerSocket, nullptr, nullptr);
            char byte;
            EXPECT_TRUE(peer < 0 || recv(peer, &byte, 1, MSG_DONTWAIT) <= 0) << "it was sent bytes";
            close(peer);
            close(strangerSocket);
        }
        chown(runtime.path().c_str(), 0, 0);
    }
}

}  // namespace
