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
#include <sstream>
#include <thread>

#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;

// With a VPN tunnel up, the engine server listens only on the first IPv4 address of the
// interface whose hardware address is named exactly (an element without a string hardware_id,
// one in other letter case, a down interface name nothing); "/set_interface_filters" moves it
// before it answers.
TEST(EngineHostNetns, ListensOnTheFilteredAddressOnly) {
    ASSERT_EQ(geteuid(), 0u) << "needs root to create a network namespace";
    const std::string name = "velmor-eh-" + std::to_string(getpid());
    auto ip = [&](const std::string& command) {
        return std::system(("ip -n " + name + " " + command + " >/dev/null 2>&1").c_str());
    };
    ASSERT_EQ(std::system(("ip netns add " + name).c_str()), 0);
    std::shared_ptr<void> removed(nullptr,
                                  [&](void*) { std::system(("ip netns del " + name).c_str()); });
    // d0: two IPv4 addresses; d5: another hardware address; d9: down; t0: a tunnel without one.
    for (const char* step :
         {"link add d0 type veth peer name p0", "link set d0 address 02:00:00:00:00:0a",
          "addr add 10.213.1.1/24 dev d0", "addr add 10.213.9.2/16 dev d0",
          "link add d5 type veth peer name p5", "link set d5 address 02:00:00:00:00:0b",
          "addr add 10.213.5.1/24 dev d5", "link add d9 type veth peer name p9",
          "link set d9 address 02:00:00:00:00:09", "addr add 10.214.9.1/24 dev d9",
          "tuntap add dev t0 mode tun", "addr add 10.213.7.1/24 dev t0"})
        ASSERT_EQ(ip(step), 0) << step;
    for (const char* up : {"d0", "p0", "d5", "p5", "t0", "lo"})
        ASSERT_EQ(ip(std::string("link set ") + up + " up"), 0) << up;
    auto inside = [&](const std::function<void()>& work) {
        std::thread([&] {
            const int space = open(("/var/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
            ASSERT_EQ(setns(space, CLONE_NEWNET), 0);
            close(space);
            work();
        }).join();
    };
    const int tunnel = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    inside([&] {  // a tunnel is up (has carrier) while a program holds it, as a VPN does
        ifreq request{};
        std::strcpy(request.ifr_name, "t0");
        request.ifr_flags = IFF_TUN | IFF_NO_PI;
        ASSERT_EQ(ioctl(tunnel, TUNSETIFF, &request), 0);
    });

    vlm::test::TempDir appData;
    const std::string folder = appData.path() + "/Corvane Technologies/velmor";
    std::filesystem::create_directories(folder);
    vlm::test::writeFile(folder + "/config.json", R"({"discovery": {"filtering": [
        {"hardware_id": "02:00:00:00:00:0A"}, {}, {"hardware_id": 7},
        {"hardware_id": "02:00:00:00:00:0b"}, {"hardware_id": "02:00:00:00:00:09"}]}})");
    const std::string& data = appData.path();
    vlm::test::Child server("/usr/sbin/ip",
                            {"netns", "exec", name, vlm::test::velmorPath(), "--serverd", "1"},
                            {{"APPDATA", data},
                             {"VELMOR_COMMON_APPDATA", data},
                             {"QT_QPA_PLATFORM", "offscreen"},
                             {"VELMOR_ENGINE_PORT", "18080"},
                             {"VELMOR_DNSSD_LIBRARY", "/nonexistent"}},
                            data);
    auto listening = [&] {
        vlm::test::Child ss("/usr/sbin/ip", {"netns", "exec", name, "ss", "-Hltn", "sport = 18080"},
                            {}, data);
        ss.wait(5s);
        std::string addresses;
        std::istringstream lines(ss.output());
        for (std::string state, receive, send, local, peer;
             lines >> state >> receive >> send >> local >> peer;)
            addresses += local + " ";
        return addresses;
    };
    EXPECT_TRUE(vlm::test::eventually([&] { return !listening().empty(); }, 10s))
        << server.output();
    EXPECT_EQ(listening(), "10.213.1.1:18080 ") << server.output();
    inside([&] {
        const auto moved = vlm::test::httpRequestTo(
            "10.213.1.1", 18080, "POST", "/set_interface_filters", 2s,
            R"([{"Ip": "10.213.5.1", "Mask": "255.255.255.0"}])", "anon:anon");
        EXPECT_EQ(moved.status, 200) << moved.body;
    });
    EXPECT_EQ(listening(), "10.213.5.1:18080 ");
    close(tunnel);
}

}  // namespace
