// Interface filters over interfaces made for the test in its own network namespace (root).

#include <gtest/gtest.h>

#include <filesystem>

#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;

// With a VPN tunnel up, the engine listens only on the first IPv4 address of the interface named
// exactly (a missing or non-string hardware_id, another letter case, a down interface: nothing);
// "/set_interface_filters" moves it before it answers.
TEST(EngineHostNetns, ListensOnTheFilteredAddressOnly) {
    const std::string net = "velmor-eh-" + std::to_string(getpid());
    // d0: two IPv4 addresses; d5: another hardware address; d9: down; t0: no hardware address.
    ASSERT_EQ(std::system(("ip netns add " + net + " && ip -n " + net + R"( -batch - <<END
link add d0 address 02:00:00:00:00:0a type veth peer name p0
link add d5 address 02:00:00:00:00:0b type veth peer name p5
link add d9 address 02:00:00:00:00:09 type veth peer name p9
tuntap add dev t0 mode tun
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
END)")
                              .c_str()),
              0)
        << "needs root and network namespaces";
    std::shared_ptr<void> removed(nullptr,
                                  [&](void*) { std::system(("ip netns del " + net).c_str()); });
    vlm::test::TempDir appData;
    const std::string& data = appData.path();
    std::filesystem::create_directories(data + "/Corvane Technologies/velmor");
    vlm::test::writeFile(data + "/Corvane Technologies/velmor/config.json",
                         R"({"discovery": {"filtering": [{"hardware_id": "02:00:00:00:00:0A"}, {},
        {"hardware_id": 7}, {"hardware_id": "02:00:00:00:00:0b"}, {"hardware_id": "02:00:00:00:00:09"}]}})");
    auto inside = [&](const std::string& command) {  // a shell command line in the namespace
        return std::make_unique<vlm::test::Child>(
            "/usr/sbin/ip", std::vector<std::string>{"netns", "exec", net, "sh", "-c", command},
            std::map<std::string, std::string>{}, data);
    };
    auto server = inside("APPDATA=" + data + " VELMOR_COMMON_APPDATA=" + data +
                         " VELMOR_ENGINE_PORT=18080 VELMOR_DNSSD_LIBRARY=/nonexistent "
                         "QT_QPA_PLATFORM=offscreen exec " +
                         vlm::test::velmorPath() + " --serverd 1");
    auto printed = [&](const std::string& command) {
        auto child = inside(command);
        return child->wait(5s), child->output();
    };
    const std::string listening = "ss -Hltn 'sport = 18080' | awk '{print $4}'";
    EXPECT_TRUE(
        vlm::test::eventually([&] { return printed(listening) == "10.213.1.1:18080\n"; }, 10s))
        << printed(listening) << server->output();
    EXPECT_EQ(
        printed(
            R"(curl -su anon:anon -o /dev/null -w %{http_code} -d '[{"Ip": "10.213.5.1", "Mask": "255.255.255.0"}]' http://10.213.1.1:18080/set_interface_filters)"),
        "200");
    EXPECT_EQ(printed(listening), "10.213.5.1:18080\n");
}

}  // namespace
