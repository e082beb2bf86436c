#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "RoleFixture.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::Child;
using vlm::test::RoleFixture;

class EngineServerRole : public RoleFixture {};

TEST_F(EngineServerRole, WithoutParentStartsStopsAndExitsZero) {
    auto server = start({"--server", "1"});
    EXPECT_EQ(server->wait(10s), 0) << server->output();
    // Every role builds the per-user folder tree first.
    for (const char* sub : {"/plugins", "/storage", "/pictures", "/logs", "/connections", "/debug"})
        EXPECT_TRUE(std::filesystem::is_directory(appFolder() + sub)) << sub;
}

TEST_F(EngineServerRole, EqualsFormIsAccepted) {
    auto server = start({"--server=1", "--apid=0"});
    EXPECT_EQ(server->wait(10s), 0);
}

TEST_F(EngineServerRole, ServesWhileTheParentLivesAndEndsAfterItsDeath) {
    Child parent("/bin/sleep", {"1000"}, {}, outputs.path());
    auto server = start({"--server", "1", "--apid", std::to_string(parent.pid())});
    ASSERT_TRUE(vlm::test::waitForEngine(port, 10s)) << server->output();
    EXPECT_FALSE(server->wait(200ms).has_value());

    parent.kill(SIGKILL);
    ASSERT_TRUE(parent.wait(5s).has_value());
    auto died = std::chrono::steady_clock::now();
    EXPECT_EQ(server->wait(12s), 0) << server->output();
    EXPECT_LE(std::chrono::steady_clock::now() - died, 11s);
    EXPECT_EQ(
        vlm::test::httpRequest("POST", port, "/get", R"({"Path": "$"})", "anon:anon", 1s).status,
        0);
}

TEST_F(EngineServerRole, ZombieParentCountsAsDead) {
    pid_t parent = fork();
    if (parent == 0)
        _exit(0);
    // Not reaped until the role has ended: the parent stays a zombie meanwhile.
    usleep(100000);
    auto server = start({"--server", "1", "--apid", std::to_string(parent)});
    EXPECT_EQ(server->wait(8s), 0) << server->output();
    waitpid(parent, nullptr, 0);
}

TEST_F(EngineServerRole, EngineThatCannotStartGivesZero) {
    int blocker = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(blocker, 1), 0);
    Child parent("/bin/sleep", {"1000"}, {}, outputs.path());
    auto server = start({"--server", "1", "--apid", std::to_string(parent.pid())});
    EXPECT_EQ(server->wait(10s), 0) << server->output();
    auto console = start({"--serverd", "1"});
    EXPECT_EQ(console->wait(10s), 0) << console->output();
    close(blocker);
}

class ConsoleEngineServerRole : public RoleFixture {};

TEST_F(ConsoleEngineServerRole, ServesUntilStopped) {
    auto server = start({"--serverd", "1"});
    ASSERT_TRUE(vlm::test::waitForEngine(port, 10s)) << server->output();
    EXPECT_FALSE(server->wait(100ms).has_value());
    server->kill(SIGTERM);
    EXPECT_TRUE(server->wait(10s).has_value());
}

class CommandLine : public RoleFixture {};

TEST_F(CommandLine, ParserErrorsExitWithOne) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--server"}, {"--apid"}, {"--bogus", "1"}, {"--help"}, {"--version"}}) {
        auto process = start(args);
        EXPECT_EQ(process->wait(10s), 1) << args.front() << process->output() << process->errors();
        EXPECT_EQ(process->output().find("Velmor Agent"), std::string::npos);
    }
}

// Both take the agent road: "server" is set (so "serverd" is never read), or "yes" reads as 0.
TEST_F(CommandLine, NonRoleValuesTakeTheAgentRoad) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--server", "0", "--serverd", "1"}, {"--serverd", "yes"}, {"--server", "no"}}) {
        auto agent = start(args);
        EXPECT_TRUE(agent->waitForOutput("Inner Troubleshooting Logger", 10s)) << args.back();
        EXPECT_FALSE(vlm::test::waitForEngine(port, 300ms));
        agent->kill(SIGTERM);
        agent->wait(5s);
    }
}

struct BrokenFile {
    const char* name;
    const char* text;
};

class BrokenConfiguration : public RoleFixture, public ::testing::WithParamInterface<BrokenFile> {};

TEST_P(BrokenConfiguration, EveryRoleStillRuns) {
    writeConfig(GetParam().text);
    auto server = start({"--server", "1"});
    EXPECT_EQ(server->wait(10s), 0) << server->output();

    auto console = start({"--serverd", "1"});
    EXPECT_TRUE(vlm::test::waitForEngine(port, 10s)) << console->output();
    console->kill(SIGTERM);
    console->wait(5s);

    auto agent = start({});
    EXPECT_TRUE(agent->waitForOutput("Inner Troubleshooting Logger", 10s)) << agent->output();
    agent->kill(SIGTERM);
    EXPECT_EQ(agent->wait(5s), -SIGTERM);
    // The user's file is still there as it was.
    EXPECT_EQ(vlm::test::readFile(appFolder() + "/config.json"), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Files, BrokenConfiguration,
    ::testing::Values(BrokenFile{"notJson", "{\"mode\": 4,"}, BrokenFile{"empty", ""},
                      BrokenFile{"array", "[{\"mode\": 1}]"},
                      BrokenFile{"wrongTypes",
                                 R"({"mode": "x", "plugins": 5, "discovery": {"filtering": {}}})"},
                      BrokenFile{"binary", "\xff\xfe\x01garbage"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
