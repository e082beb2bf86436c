// Interface filters over interfaces made for the test in a network namespace of its own (root).

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>

#include <cstring>

#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;

// The engine listens only on the first IPv4 address of the interface named exactly (not a VPN
// tunnel, another case, a down interface); "/set_interface_filters" moves it before it answers.
TEST(EngineHostNetns, ListensOnTheFilteredAddressOnly) {
    // The process's own namespace, gone with it; a tunnel is up while a program holds it.
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "needs root and network namespaces";
    ifreq tunnel{};
    std::strcpy(tunnel.ifr_name, "t0");
    tunnel.ifr_flags = IFF_TUN | IFF_NO_PI;
    ASSERT_EQ(ioctl(open("/dev/net/tun", O_RDWR | O_CLOEXEC), TUNSETIFF, &tunnel), 0);
    // d0: two IPv4 addresses; d5: another hardware address; d9: down; t0: no hardware address.
    ASSERT_EQ(std::system(R"(ip -batch - <<END
link add d0 address 02:00:00:00:00:0a type veth peer name p0
link add d5 address 02:00:00:00:00:0b type veth peer name p5
link add d9 address 02:00:00:00:00:09 type veth peer name p9
addr add 10.213.1.1/24 dev d0
addr add 10.213.9.2/16 dev d0
addr add 10.213.5.1/24 dev d5
addr add 10.214.9.1/24 dev d9
addr add 10.213.7.1/24 dev t0
link set d0 up
link set d5 up
link set p0 up
link set p5 up
link set t0 up
link set lo up
END)"),
              0);
    vlm::test::TempDir appData;
    const std::string& data = appData.path();
    std::filesystem::create_directories(data + "/Corvane Technologies/velmor");
    vlm::test::writeFile(data + "/Corvane Technologies/velmor/config.json",
                         R"({"discovery": {"filtering": [{"hardware_id": "02:00:00:00:00:0A"}, {},
        {"hardware_id": 7}, {"hardware_id": "02:00:00:00:00:0b"}, {"hardware_id": "02:00:00:00:00:09"}]}})");
    // clang-format off
    const std::map<std::string, std::string> env = {{"APPDATA", data}, {"VELMOR_COMMON_APPDATA", data},
        {"QT_QPA_PLATFORM", "offscreen"}, {"VELMOR_ENGINE_PORT", "18080"}, {"VELMOR_DNSSD_LIBRARY", "/nonexistent"}};
    // clang-format on
    vlm::test::Child server(vlm::test::velmorPath(), {"--serverd", "1"}, env, data);
    auto printed = [&](const std::string& command) {  // by a shell command line
        vlm::test::Child child("/bin/sh", {"-c", command}, {}, data);
        return child.wait(5s), child.output();
    };
    const std::string listening = "ss -Hltn 'sport = 18080' | awk '{print $4}'";
    EXPECT_TRUE(
        vlm::test::eventually([&] { return printed(listening) == "10.213.1.1:18080\n"; }, 10s))
        << printed(listening) << server.output();
    EXPECT_EQ(
        printed(
            R"(curl -su anon:anon -o /dev/null -w %{http_code} -d '[{"Ip": "10.213.5.1", "Mask": "255.255.255.0"}]' http://10.213.1.1:18080/set_interface_filters)"),
        "200");
    EXPECT_EQ(printed(listening), "10.213.5.1:18080\n");
}

}  // namespace
