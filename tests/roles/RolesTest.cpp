// The executable's roles as whole processes, and the agent's single-instance guard.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <csignal>
#include <cstring>

#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::Child;
const std::string kBanner = "Inner Troubleshooting Logger", kEngine = "Engine web server listening",
                  kShown = "Another agent asked to show the web application",
                  kNoGuard = "No single-instance guard";

// A socket of root's listening at path, or with request one that sent the show request there.
int unixSocket(const std::string& path, bool request) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    auto* at = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ((request ? connect : bind)(fd, at, sizeof address), 0) << path;
    chmod(path.c_str(), 0777);
    EXPECT_EQ(request ? write(fd, "\0\0\0\0", 4) : listen(fd, 4), request ? 4 : 0);
    return fd;
}

class Roles : public ::testing::Test {
protected:
    void SetUp() override {
        chmod(temp.path().c_str(), 01777);  // a shared temporary folder
        std::filesystem::create_directories(appFolder);
        chmod(appFolder.c_str(), 0777);  // for the agent of nobody as well
    }
    std::unique_ptr<Child> start(std::vector<std::string> args, const char* user = nullptr) {
        if (user)  // another user id, through setpriv as root
            args.insert(args.begin(), {"--reuid=" + std::string(user), "--regid=nogroup",
                                       "--clear-groups", vlm::test::velmorPath()});
        return std::make_unique<Child>(user ? "/usr/bin/setpriv" : vlm::test::velmorPath(), args,
                                       env, outputs.path());
    }
    vlm::test::TempDir appData, runtime, outputs, temp;
    const std::string appFolder = appData.path() + "/Corvane Technologies/velmor";
    // No DNS-SD here: the machine's own network must not see test engines.
    // clang-format off
    std::map<std::string, std::string> env = {
        {"APPDATA", appData.path()}, {"VELMOR_COMMON_APPDATA", appData.path()},
        {"XDG_RUNTIME_DIR", runtime.path()}, {"TMPDIR", temp.path()}, {"QT_QPA_PLATFORM", "offscreen"},
        {"VELMOR_DNSSD_LIBRARY", "/nonexistent"}, {"VELMOR_ENGINE_PORT", std::to_string(vlm::test::freeLoopbackPort())}};
    // clang-format on
};

// Each role runs on a file it cannot use, left as it was: the engine server while its parent
// lives (a zombie has ended; a port in use ends it with 0), the agent; parser errors end with 1,
// values that are not role numbers take the agent road ("serverd" is not read after "server").
TEST_F(Roles, EveryRoleRunsOnABrokenFile) {
    const std::string broken = "\xff\xfe{\"mode\": 4,";
    vlm::test::writeFile(appFolder + "/config.json", broken);
    Child parent("/bin/sleep", {"1000"}, {}, outputs.path());
    auto server = start({"--server", "1", "--apid", std::to_string(parent.pid())});
    ASSERT_TRUE(server->waitForOutput(kEngine, 10s)) << server->output();
    EXPECT_EQ(start({"--serverd", "1"})->wait(10s), 0);  // the port is in use
    EXPECT_FALSE(server->wait(0ms).has_value());
    parent.kill(SIGKILL);
    parent.wait(5s);
    EXPECT_EQ(server->wait(12s), 0) << server->output();
    Child zombie("/bin/true", {}, {}, outputs.path());  // ended, reaped only after the role
    siginfo_t ended;
    waitid(P_PID, zombie.pid(), &ended, WEXITED | WNOWAIT);
    EXPECT_EQ(start({"--server=1", "--apid=" + std::to_string(zombie.pid())})->wait(8s), 0);
    for (const auto& args : std::vector<std::vector<std::string>>{
             {}, {"--server", "0", "--serverd", "1"}, {"--serverd", "yes"}}) {
        auto agent = start(args);
        EXPECT_TRUE(agent->waitForOutput(kBanner, 10s)) << agent->output();
        EXPECT_EQ(agent->output().find(kEngine), std::string::npos);
    }
    for (const char* wrong : {"--server", "--bogus", "--help"})
        EXPECT_EQ(start({wrong})->wait(10s), 1) << wrong;
    EXPECT_EQ(vlm::test::readFile(appFolder + "/config.json"), broken);
}

// A guard folder not private to the user: no hand-over, said once; another user's socket is
// never used (nor ours by nobody's agent); one left by a crashed agent does not stop the guard.
TEST_F(Roles, SingleInstanceFolderIsPrivate) {
    vlm::test::writeFile(appFolder + "/config.json", R"({"mode": null})");  // no engine child
    chmod(outputs.path().c_str(), 0777);
    auto folder = [&](int uid) { return temp.path() + "/velmor-" + std::to_string(uid); };
    auto stranger = [&](int uid, int owner, int mode) {  // in the folder of uid
        mkdir(folder(uid).c_str(), mode);
        chown(folder(uid).c_str(), owner, owner);
        return unixSocket(folder(uid) + "/velmor_agent_singleton", false);
    };
    struct Case {
        const char* name;
        std::function<int()> make;  // a socket of root's listening there, or -1
        const char* user;
        bool handOver;
    } cases[] = {
        // clang-format off
        {"own fallback folder", [] { return -1; }, nullptr, true},
        {"left by a crashed agent", [&] { close(stranger(0, 0, 0700)); return -1; }, nullptr, true},
        {"fallback of another user", [&] { return stranger(0, 65534, 0700); }, nullptr, false},
        {"fallback open to others", [&] { return stranger(0, 0, 0755); }, nullptr, false},
        {"runtime folder of another user", [&] { env["XDG_RUNTIME_DIR"] = runtime.path(); chown(runtime.path().c_str(), 65534, 0); return -1; }, nullptr, false},
        {"our socket in the folder of nobody", [&] { return stranger(65534, 65534, 0700); }, "nobody", true},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        env.erase("XDG_RUNTIME_DIR");
        for (int uid : {0, 65534})
            std::filesystem::remove_all(folder(uid));
        const int strange = c.make();
        auto first = start({}, c.user);
        ASSERT_TRUE(first->waitForOutput(kBanner, 10s)) << first->output() << first->errors();
        const std::string out = first->output();
        EXPECT_EQ(out.find(kNoGuard) == std::string::npos, c.handOver) << out;
        EXPECT_EQ(out.find(kNoGuard), out.rfind(kNoGuard));
        if (c.user) {  // a request from another user (root) is not acted on
            close(unixSocket(folder(65534) + "/velmor_agent_singleton", true));
            EXPECT_FALSE(first->waitForOutput(kShown, 300ms));
        }
        auto second = start({}, c.user);
        EXPECT_TRUE(c.handOver ? second->wait(10s) == 0 : second->waitForOutput(kBanner, 10s));
        EXPECT_EQ(second->output().empty(), c.handOver);
        EXPECT_EQ(first->waitForOutput(kShown, c.handOver ? 5s : 0s), c.handOver);
        close(strange);
        chown(runtime.path().c_str(), 0, 0);
    }
}

}  // namespace
