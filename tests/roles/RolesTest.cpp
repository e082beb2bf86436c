// The executable's three roles as whole processes, in temporary per-user and machine-wide
// folders, and the agent's single-instance guard.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>

#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using vlm::test::Child;
using vlm::test::TempDir;

const std::string kBanner =
    "\033[37m\033[1m\n" + std::string(81, '*') +
    "\n**                                 Velmor Agent                                **\n"
    "**                         Inner Troubleshooting Logger                        **\n" +
    std::string(81, '*') + "\n\n\033[0m";
const std::string kShowRequest = "Another agent asked to show the web application";
const std::string kNoGuard = "No single-instance guard";

void sendTo(const std::string& path, const std::string& bytes) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(fd);
}

int listenUnix(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    chmod(path.c_str(), 0777);  // anyone may connect
    listen(fd, 4);
    return fd;
}

class Roles : public ::testing::Test {
protected:
    void SetUp() override { chmod(temp.path().c_str(), 01777); }  // a shared temporary folder
    std::unique_ptr<Child> start(const std::vector<std::string>& args, const char* user = nullptr) {
        std::vector<std::string> all = args;
        std::string program = vlm::test::velmorPath();
        if (user) {  // another user id: through setpriv, as root
            all.insert(all.begin(), {"--reuid=" + std::string(user), "--regid=nogroup",
                                     "--clear-groups", program});
            program = "/usr/bin/setpriv";
        }
        return std::make_unique<Child>(program, all, env, outputs.path());
    }
    std::string appFolder() const { return appData.path() + "/Corvane Technologies/velmor"; }
    void writeConfig(const std::string& text) const {
        fs::create_directories(appFolder());
        vlm::test::writeFile(appFolder() + "/config.json", text);
    }
    // The second agent hands over: it leaves silently with 0 about a second later.
    void expectHandOver(Child& first, const char* user = nullptr) {
        const auto started = std::chrono::steady_clock::now();
        auto second = start({}, user);
        EXPECT_EQ(second->wait(10s), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - started, 1s);
        EXPECT_EQ(second->output(), "");
        EXPECT_TRUE(first.waitForOutput(kShowRequest, 5s)) << first.output();
    }

    TempDir appData, common, runtime, outputs, temp;
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

// Each role runs on a configuration file it cannot use, leaves it as it was, and builds the
// per-user folders: the engine server while its parent lives (a zombie parent has ended, a
// port in use ends it with 0), the agent's banner.
TEST_F(Roles, EveryRoleRunsOnABrokenFile) {
    const std::string broken = "\xff\xfe{\"mode\": 4,";
    writeConfig(broken);
    Child parent("/bin/sleep", {"1000"}, {}, outputs.path());
    auto server = start({"--server", "1", "--apid", std::to_string(parent.pid())});
    ASSERT_TRUE(vlm::test::waitForEngine(port, 10s)) << server->output();
    EXPECT_FALSE(server->wait(100ms).has_value());
    for (const char* sub : {"/plugins", "/storage", "/pictures", "/logs", "/connections", "/debug"})
        EXPECT_TRUE(fs::is_directory(appFolder() + sub)) << sub;
    auto taken = start({"--serverd", "1"});  // the port is in use
    EXPECT_EQ(taken->wait(10s), 0) << taken->output();
    parent.kill(SIGKILL);
    parent.wait(5s);
    EXPECT_EQ(server->wait(12s), 0) << server->output();
    EXPECT_EQ(
        vlm::test::httpRequestTo("127.0.0.1", port, "POST", "/get", 1s, "{}", "anon:anon").status,
        0);

    pid_t zombie = fork();
    if (zombie == 0)
        _exit(0);
    usleep(50000);  // not reaped until the role has ended
    auto orphan = start({"--server=1", "--apid=" + std::to_string(zombie)});
    EXPECT_EQ(orphan->wait(8s), 0) << orphan->output();
    waitpid(zombie, nullptr, 0);

    auto agent = start({});
    EXPECT_TRUE(agent->waitForOutput(kBanner, 10s)) << agent->output();
    EXPECT_EQ(vlm::test::readFile(appFolder() + "/config.json"), broken);
}

// Parser errors end with 1 before any role; values that are not role numbers take the agent
// road ("server" set means "serverd" is never read).
TEST_F(Roles, CommandLine) {
    const std::pair<std::vector<std::string>, int> cases[] = {
        {{"--server"}, 1},
        {{"--apid"}, 1},
        {{"--bogus", "1"}, 1},
        {{"--help"}, 1},
        {{"--server", "0", "--serverd", "1"}, 0},
        {{"--serverd", "yes"}, 0}};
    for (const auto& [args, status] : cases) {
        auto process = start(args);
        if (status == 1) {
            EXPECT_EQ(process->wait(10s), 1) << args.front();
            EXPECT_EQ(process->output().find("Velmor Agent"), std::string::npos);
            continue;
        }
        EXPECT_TRUE(process->waitForOutput(kBanner, 10s)) << args.back();
        EXPECT_FALSE(vlm::test::waitForEngine(port, 200ms)) << args.back();
    }
}

// Where the guard's folder is not private to the user, the agent runs without the hand-over and
// says so once; a socket of another user found there is never used (nor ours by an agent of
// nobody, whose two agents hand over through their own folder, as ours do without
// XDG_RUNTIME_DIR).
TEST_F(Roles, SingleInstanceFolderIsPrivate) {
    writeConfig(R"({"mode": null})");
    for (const std::string& folder : {appData.path(), outputs.path(), appFolder()})
        chmod(folder.c_str(), 0777);
    auto fallback = [&](int uid) { return temp.path() + "/velmor-" + std::to_string(uid); };
    auto mkdirOf = [&](int uid, int owner, int mode) {
        mkdir(fallback(uid).c_str(), mode);
        chown(fallback(uid).c_str(), owner, owner);
    };
    struct Case {
        const char* name;
        std::function<void()> make;
        const char* user;
        bool handOver;
    } cases[] = {
        // clang-format off
        {"own fallback folder", [] {}, nullptr, true},
        {"fallback of another user", [&] { mkdirOf(0, 65534, 0700); }, nullptr, false},
        {"fallback open to others", [&] { mkdirOf(0, 0, 0755); }, nullptr, false},
        {"runtime folder of another user", [&] { env["XDG_RUNTIME_DIR"] = runtime.path(); chown(runtime.path().c_str(), 65534, 65534); }, nullptr, false},
        {"our socket in the folder of nobody", [&] { mkdirOf(65534, 65534, 0700); }, "nobody", true},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        env.erase("XDG_RUNTIME_DIR");
        for (int uid : {0, 65534})
            fs::remove_all(fallback(uid));
        c.make();
        const std::string folder = fallback(c.user ? 65534 : 0);
        const int stranger =
            fs::exists(folder) ? listenUnix(folder + "/velmor_agent_singleton") : -1;
        auto first = start({}, c.user);
        ASSERT_TRUE(first->waitForOutput(kBanner, 10s)) << first->output() << first->errors();
        const std::string out = first->output();
        EXPECT_EQ(out.find(kNoGuard) == std::string::npos, c.handOver) << out;
        EXPECT_EQ(out.find(kNoGuard), out.rfind(kNoGuard));
        if (c.user) {  // a request from another user (root) is not acted on
            sendTo(folder + "/velmor_agent_singleton", std::string(4, '\0'));
            EXPECT_FALSE(first->waitForOutput(kShowRequest, 300ms));
        }
        if (c.handOver) {
            expectHandOver(*first, c.user);
        } else {
            EXPECT_TRUE(start({})->waitForOutput(kBanner, 10s));
        }
        if (stranger >= 0) {  // it may connect to learn whose it is, but sends nothing
            const int peer = accept(stranger, nullptr, nullptr);
            char byte;
            EXPECT_TRUE(peer < 0 || recv(peer, &byte, 1, MSG_DONTWAIT) <= 0) << "it was sent bytes";
            close(peer);
        }
        close(stranger);
        chown(runtime.path().c_str(), 0, 0);
    }
}

}  // namespace
