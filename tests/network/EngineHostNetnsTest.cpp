// Interface filters over real interfaces that the test makes in its own network namespace.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <QNetworkInterface>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "Agent/Agent.h"
#include "TestSupport.h"

namespace {

class NetnsInterfaces : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            FAIL() << "needs root to create a network namespace";
        name_ = "velmor-eh-" + std::to_string(getpid());
        ASSERT_EQ(run("ip netns add " + name_), 0) << "network namespaces are not available";
        created_ = true;
        // veth pairs, as not every kernel has the dummy driver; a peer is up so that its end
        // has carrier. d0: up, two IPv4 addresses; d1: down; d2: up without IPv4; d3 and d4
        // share a hardware address.
        const char* setup[] = {"link add d0 type veth peer name pd0",
                               "link set d0 address 02:00:00:00:00:0a",
                               "addr add 10.213.1.1/24 dev d0",
                               "addr add 10.213.9.2/16 dev d0",
                               "link set d0 up",
                               "link add d1 type veth peer name pd1",
                               "link set d1 address 02:00:00:00:00:01",
                               "addr add 10.213.2.1/24 dev d1",
                               "link add d2 type veth peer name pd2",
                               "link set d2 address 02:00:00:00:00:02",
                               "link set d2 up",
                               "link add d3 type veth peer name pd3",
                               "link set d3 address 02:00:00:00:00:03",
                               "addr add 10.213.3.1/24 dev d3",
                               "link set d3 up",
                               "link add d4 type veth peer name pd4",
                               "link set d4 address 02:00:00:00:00:03",
                               "addr add 10.213.4.1/25 dev d4",
                               "link set d4 up",
                               "link set pd0 up",
                               "link set pd2 up",
                               "link set pd3 up",
                               "link set pd4 up",
                               "link set lo up"};
        for (const char* step : setup)
            ASSERT_EQ(run("ip -n " + name_ + " " + step), 0) << step;
    }

    void TearDown() override {
        if (created_)
            run("ip netns del " + name_);
    }

    static int run(const std::string& command) {
        return std::system((command + " >/dev/null 2>&1").c_str());
    }

    // The interfaces as seen from a thread that has entered the namespace.
    vlm::InterfaceFilters filtersFor(const std::vector<std::string>& ids) {
        vlm::InterfaceFilters filters;
        std::thread inside([&] {
            int fd = open(("/var/run/netns/" + name_).c_str(), O_RDONLY);
            if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
                ADD_FAILURE() << "cannot enter the namespace";
                return;
            }
            close(fd);
            vlm::interfaceFiltersFor(ids, QNetworkInterface::allInterfaces(), filters);
        });
        inside.join();
        return filters;
    }

    std::string name_;
    bool created_ = false;
};

using Filters = vlm::InterfaceFilters;

TEST_F(NetnsInterfaces, FirstIPv4AddressOfAnUpInterface) {
    EXPECT_EQ(filtersFor({"02:00:00:00:00:0A"}), (Filters{{"10.213.1.1", "255.255.255.0"}}));
}

TEST_F(NetnsInterfaces, HardwareAddressComparisonIsCaseSensitive) {
    EXPECT_TRUE(filtersFor({"02:00:00:00:00:0a"}).empty());
}

TEST_F(NetnsInterfaces, DownOrAddresslessInterfacesGiveNoFilter) {
    EXPECT_TRUE(filtersFor({"02:00:00:00:00:01"}).empty());
    EXPECT_TRUE(filtersFor({"02:00:00:00:00:02"}).empty());
    EXPECT_TRUE(filtersFor({"00:00:00:00:00:00"}).empty());
}

TEST_F(NetnsInterfaces, OnlyMatchingIdsAddFilters) {
    EXPECT_EQ(filtersFor({"AA:BB:CC:DD:EE:FF", "02:00:00:00:00:0A"}),
              (Filters{{"10.213.1.1", "255.255.255.0"}}));
}

TEST_F(NetnsInterfaces, SharedHardwareAddressGivesOneFilterPerInterface) {
    EXPECT_EQ(filtersFor({"02:00:00:00:00:03"}),
              (Filters{{"10.213.3.1", "255.255.255.0"}, {"10.213.4.1", "255.255.255.128"}}));
}

TEST_F(NetnsInterfaces, IdsKeepTheirOrder) {
    EXPECT_EQ(filtersFor({"02:00:00:00:00:03", "02:00:00:00:00:0A"}),
              (Filters{{"10.213.3.1", "255.255.255.0"},
                       {"10.213.4.1", "255.255.255.128"},
                       {"10.213.1.1", "255.255.255.0"}}));
}

TEST_F(NetnsInterfaces, EngineRoleBindsOnlyTheFilteredAddress) {
    vlm::test::TempDir appData, outputs;
    std::filesystem::create_directories(appData.path() + "/Corvane Technologies/velmor");
    vlm::test::writeFile(appData.path() + "/Corvane Technologies/velmor/config.json",
                         R"({"discovery": {"filtering": [{"hardware_id": "02:00:00:00:00:0A"}]}})");
    vlm::test::Child server("/usr/sbin/ip",
                            {"netns", "exec", name_, vlm::test::velmorPath(), "--serverd", "1"},
                            {{"APPDATA", appData.path()},
                             {"VELMOR_COMMON_APPDATA", appData.path()},
                             {"QT_QPA_PLATFORM", "offscreen"},
                             {"VELMOR_ENGINE_PORT", "18080"},
                             {"VELMOR_DNSSD_LIBRARY", "/nonexistent"}},
                            outputs.path());
    int firstStatus = 0, secondStatus = 0;
    std::thread inside([&] {
        int fd = open(("/var/run/netns/" + name_).c_str(), O_RDONLY);
        ASSERT_EQ(setns(fd, CLONE_NEWNET), 0);
        close(fd);
        for (int i = 0; i < 500 && firstStatus != 200; ++i) {
            firstStatus = vlm::test::httpRequestTo("10.213.1.1", 18080, "GET", "/").status;
            if (firstStatus != 200)
                usleep(20000);
        }
        secondStatus = vlm::test::httpRequestTo("10.213.9.2", 18080, "GET", "/").status;
    });
    inside.join();
    EXPECT_EQ(firstStatus, 200) << server.output();
    EXPECT_EQ(secondStatus, 0) << "the engine answered on an address outside its filter";
}

}  // namespace
