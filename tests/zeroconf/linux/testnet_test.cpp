// The test hosts themselves (tools/testnet): what the binding's tests rely on.

#include "TestNet.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

using vlm::test::TestNet;

namespace {

std::string netnsList() {
    std::string text;
    if (FILE* pipe = popen("ip netns list 2>/dev/null", "r")) {
        char buffer[256];
        while (fgets(buffer, sizeof buffer, pipe))
            text += buffer;
        pclose(pipe);
    }
    return text;
}

TEST(TestNetTest, ThreeHostsOnABridgeEachWithItsOwnNameRunAndAvahi) {
    std::string prefix;
    {
        TestNet net({"a", "b", "c"});
        ASSERT_TRUE(net.ok()) << net.error();
        prefix = "vt" + net.name() + "-";

        std::string output;
        ASSERT_EQ(net.run("b", "hostname", &output), 0) << output;
        EXPECT_EQ(output, "b\n");
        ASSERT_EQ(net.run("c", "ip -4 -o addr show dev eth0", &output), 0) << output;
        EXPECT_NE(output.find(net.address("c") + "/24"), std::string::npos) << output;
        EXPECT_EQ(net.run("a", "exit 3"), 3);

        // Each host has a /run of its own.
        ASSERT_EQ(net.run("a", "touch /run/velmor-testnet-mark"), 0);
        EXPECT_EQ(net.run("a", "test -e /run/velmor-testnet-mark"), 0);
        EXPECT_NE(net.run("b", "test -e /run/velmor-testnet-mark"), 0);
        EXPECT_FALSE(vlm::test::exists("/run/velmor-testnet-mark"));

        // Over the bridge, from one end to the other.
        ASSERT_EQ(net.run("a", "avahi-resolve -4 -n c.local", &output), 0) << output;
        EXPECT_EQ(output, "c.local\t" + net.address("c") + "\n");
        std::unique_ptr<vlm::test::Child> publisher = net.start(
            "a", {"avahi-publish-service", "Seen From C", "_velmornet._tcp", "4711", "k=v"});
        bool seen = false;
        for (int attempt = 0; attempt < 50 && !seen; ++attempt) {
            net.run("c", "avahi-browse -t -r -p -k _velmornet._tcp", &output);
            seen = output.find("=;eth0;IPv4;Seen\\032From\\032C;_velmornet._tcp;local;a.local;" +
                               net.address("a") + ";4711;\"k=v\"") != std::string::npos;
        }
        EXPECT_TRUE(seen) << output;
        EXPECT_NE(net.busAddress("c").find("/c/run/dbus/system_bus_socket"), std::string::npos);
        EXPECT_NE(netnsList().find(prefix + "a"), std::string::npos);
    }
    EXPECT_EQ(netnsList().find(prefix), std::string::npos) << "left behind:\n" << netnsList();
}

}  // namespace
