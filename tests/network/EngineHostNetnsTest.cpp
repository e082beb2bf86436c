// Interface filters over interfaces made for the test in its own network namespace (root).

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;

class NetnsInterfaces : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(geteuid(), 0u) << "needs root to create a network namespace";
        ASSERT_EQ(run("ip netns add " + name), 0) << "network namespaces are not available";
        created = true;
        // d0: two IPv4 addresses; d5: another hardware address; t0: a tunnel without one.
        for (const char* step :
             {"link add d0 type veth peer name p0", "link set d0 address 02:00:00:00:00:0a",
              "addr add 10.213.1.1/24 dev d0", "addr add 10.213.9.2/16 dev d0",
              "link add d5 type veth peer name p5", "link set d5 address 02:00:00:00:00:05",
              "addr add 10.213.5.1/24 dev d5", "tuntap add dev t0 mode tun",
              "addr add 10.213.7.1/24 dev t0", "link set lo up"})
            ASSERT_EQ(run("ip -n " + name + " " + step), 0) << step;
        for (const char* up : {"d0", "p0", "d5", "p5", "t0"})
            ASSERT_EQ(run("ip -n " + name + " link set " + up + " up"), 0) << up;
        inside([this] {  // a tunnel is up (has carrier) while a program holds it, as a VPN does
            tunnel = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
            ifreq request{};
            std::strcpy(request.ifr_name, "t0");
            request.ifr_flags = IFF_TUN | IFF_NO_PI;
            ASSERT_EQ(ioctl(tunnel, TUNSETIFF, &request), 0);
        });
    }
    void TearDown() override {
        close(tunnel);
        if (created)
            run("ip netns del " + name);
    }
    static int run(const std::string& command) {
        return std::system((command + " >/dev/null 2>&1").c_str());
    }
    void inside(const std::function<void()>& work) {
        std::thread thread([&] {
            const int fd = open(("/var/run/netns/" + name).c_str(), O_RDONLY);
            ASSERT_EQ(setns(fd, CLONE_NEWNET), 0);
            close(fd);
            work();
        });
        thread.join();
    }
    const std::string name = "velmor-eh-" + std::to_string(getpid());
    bool created = false;
    int tunnel = -1;
};

// With a tunnel up, an element without a string hardware_id never makes the engine listen on
// the tunnel: only on the veth. "/set_interface_filters" then moves it before it answers.
TEST_F(NetnsInterfaces, EngineListensOnTheFilteredAddressOnly) {
    for (const char* other : {"{}", R"({"hardware_id": 7})"}) {
        SCOPED_TRACE(other);
        vlm::test::TempDir appData, outputs;
        const std::string folder = appData.path() + "/Corvane Technologies/velmor";
        std::filesystem::create_directories(folder);
        vlm::test::writeFile(
            folder + "/config.json",
            std::string(R"({"discovery": {"filtering": [{"hardware_id": "02:00:00:00:00:0A"}, )") +
                other + "]}}");
        const std::string& data = appData.path();
        vlm::test::Child server("/usr/sbin/ip",
                                {"netns", "exec", name, vlm::test::velmorPath(), "--serverd", "1"},
                                // clang-format off
                                {{"APPDATA", data}, {"VELMOR_COMMON_APPDATA", data}, {"QT_QPA_PLATFORM", "offscreen"},
                                 {"VELMOR_ENGINE_PORT", "18080"}, {"VELMOR_DNSSD_LIBRARY", "/nonexistent"}},
                                // clang-format on
                                outputs.path());
        inside([&] {
            auto status = [](const char* host) {
                return vlm::test::httpRequestTo(host, 18080, "GET", "/").status;
            };
            for (int i = 0; i < 500 && status("10.213.1.1") != 200; ++i)
                usleep(20000);
            EXPECT_EQ(status("10.213.1.1"), 200) << server.output();
            EXPECT_EQ(status("10.213.9.2"), 0) << "the interface's second address";
            EXPECT_EQ(status("10.213.7.1"), 0) << "the tunnel";
            const auto moved = vlm::test::httpRequestTo(
                "10.213.1.1", 18080, "POST", "/set_interface_filters", 2s,
                R"([{"Ip": "10.213.5.1", "Mask": "255.255.255.0"}])", "anon:anon");
            EXPECT_EQ(moved.status, 200) << moved.body;
            EXPECT_EQ(status("10.213.5.1"), 200);
            EXPECT_EQ(status("10.213.1.1"), 0);
        });
    }
}

}  // namespace
