#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <chrono>
#include <filesystem>
#include <thread>

#include "RoleFixture.h"

namespace {

using namespace std::chrono_literals;

const std::string kBanner =
    "\033[37m\033[1m\n"
    "*********************************************************************************\n"
    "**                                 Velmor Agent                                **\n"
    "**                         Inner Troubleshooting Logger                        **\n"
    "*********************************************************************************\n\n"
    "\033[0m";
const std::string kShowRequest = "Another agent asked to show the web application";

class SingleInstance : public vlm::test::RoleFixture {
protected:
    std::unique_ptr<vlm::test::Child> startFirstAgent() {
        auto agent = start({});
        EXPECT_TRUE(agent->waitForOutput(kBanner, 10s)) << agent->output();
        return agent;
    }

    // A second agent hands over to the first and leaves about a second later, silently.
    void expectHandOver(vlm::test::Child& first) {
        auto started = std::chrono::steady_clock::now();
        auto second = start({});
        EXPECT_EQ(second->wait(10s), 0);
        auto took = std::chrono::steady_clock::now() - started;
        EXPECT_GE(took, 1s);
        EXPECT_EQ(second->output(), "");
        EXPECT_TRUE(first.waitForOutput(kShowRequest, 5s)) << first.output();
    }
};

TEST_F(SingleInstance, BannerIsWrittenByteForByte) {
    auto agent = startFirstAgent();
    EXPECT_EQ(agent->output().substr(0, kBanner.size()), kBanner);
    EXPECT_FALSE(agent->wait(200ms).has_value());
}

TEST_F(SingleInstance, SecondAgentHandsOverToTheFirst) {
    auto first = startFirstAgent();
    expectHandOver(*first);
    // Each request is acted on, not just the first.
    auto third = start({});
    EXPECT_EQ(third->wait(10s), 0);
    EXPECT_FALSE(first->wait(100ms).has_value());
    std::string out = first->output();
    EXPECT_NE(out.find(kShowRequest, out.find(kShowRequest) + 1), std::string::npos);
}

TEST_F(SingleInstance, GuardWorksAgainAfterTheFirstAgentWasKilled) {
    auto crashed = startFirstAgent();
    crashed->kill(SIGKILL);
    crashed->wait(5s);
    // The killed agent's socket file is still there; it must not block the next agent.
    auto next = startFirstAgent();
    EXPECT_EQ(next->output().substr(0, kBanner.size()), kBanner);
    expectHandOver(*next);
}

TEST_F(SingleInstance, UsersDoNotShareTheGuard) {
    auto first = startFirstAgent();
    vlm::test::TempDir otherRuntime;
    auto env = environment();
    env["XDG_RUNTIME_DIR"] = otherRuntime.path();
    vlm::test::Child other(vlm::test::velmorPath(), {}, env, outputs.path());
    EXPECT_TRUE(other.waitForOutput(kBanner, 10s));
}

// True once the process handles sig itself (its caught-signal mask in /proc says so).
bool catches(pid_t pid, int sig) {
    const std::string status = vlm::test::readFile("/proc/" + std::to_string(pid) + "/status");
    const std::size_t at = status.find("SigCgt:\t");
    if (at == std::string::npos)
        return false;
    const unsigned long long mask = std::stoull(status.substr(at + 8, 16), nullptr, 16);
    return mask & (1ull << (sig - 1));
}

TEST_F(SingleInstance, EndingTheSessionQuitsLikeQuit) {
    writeConfig(R"({"mode": null})");  // no search: the splash closes at once
    for (int sig : {SIGTERM, SIGHUP, SIGINT}) {
        auto agent = startFirstAgent();
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (!catches(agent->pid(), sig) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(5ms);
        agent->kill(sig);
        EXPECT_EQ(agent->wait(10s), 0) << sig;
        EXPECT_TRUE(agent->waitForOutput("Asked to end: quitting", 1s)) << agent->output();
        // Gone in order: the next agent finds no socket file left behind.
        EXPECT_FALSE(std::filesystem::exists(runtime.path() + "/velmor_agent_singleton"));
    }
}

TEST_F(SingleInstance, GarbageOnTheSocketIsIgnored) {
    auto first = startFirstAgent();
    std::string name = runtime.path() + "/velmor_agent_singleton";
    ASSERT_TRUE(std::filesystem::exists(name));
    // A value other than 0, then a short write: neither may do anything.
    for (const std::string& bytes :
         {std::string("\x01\x00\x00\x00xy", 6), std::string("\x00", 1)}) {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, name.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
    }
    EXPECT_FALSE(first->wait(300ms).has_value());
    EXPECT_EQ(first->output().find(kShowRequest), std::string::npos);
}

}  // namespace
