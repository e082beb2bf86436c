#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "Kelvane.h"
#include "KelvaneFixture.h"

namespace {

using namespace std::chrono_literals;
using kelvane::test::parseJson;

/// \brief The library as the program uses it: through its exports, configured by the
/// environment, on loopback only.
class Exports : public ::testing::Test {
protected:
    Exports() : port(vlm::test::freeLoopbackPort()) {
        setenv("VELMOR_COMMON_APPDATA", common.path().c_str(), 1);
        setenv("APPDATA", appData.path().c_str(), 1);
        setPort(port);
    }
    ~Exports() override { KLV_Uninitialize(); }

    static void setPort(unsigned short value) {
        setenv("VELMOR_ENGINE_PORT", std::to_string(value).c_str(), 1);
    }

    rapidjson::Document whole() const {
        return parseJson(
            vlm::test::httpRequest("POST", port, "/get", R"({"Path": "$"})", "anon:anon").body);
    }

    vlm::test::TempDir common;
    vlm::test::TempDir appData;
    unsigned short port;
};

TEST_F(Exports, StartServeStop) {
    std::filesystem::create_directories(common.path() + "/Corvane Technologies/Velmor/Plugins");
    vlm::test::writeFile(common.path() + "/Corvane Technologies/Velmor/Plugins/Delta_4.2.so", "");
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
    ASSERT_EQ(KLV_Initialize(-1, 0, 3), 0);
    ASSERT_TRUE(vlm::test::waitForEngine(port, 5s));

    auto document = whole();
    ASSERT_TRUE(document.IsObject());
    EXPECT_TRUE(document["Engine"]["Master"].GetBool());
    const auto& filters = document["Engine"]["InterfaceFilters"];
    ASSERT_EQ(filters.Size(), 1u);
    EXPECT_STREQ(filters[0]["Ip"].GetString(), "127.0.0.1");
    EXPECT_STREQ(filters[0]["Mask"].GetString(), "255.0.0.0");
    const auto& plugins = document["Config"]["Plugins"];
    ASSERT_EQ(plugins.Size(), 1u);
    EXPECT_STREQ(plugins[0]["Name"].GetString(), "Delta");
    EXPECT_EQ(plugins[0]["Major"].GetInt(), 4);
    EXPECT_EQ(plugins[0]["Minor"].GetInt(), 2);
    const auto& folders = document["Config"]["PluginDirectory"];
    ASSERT_EQ(folders.Size(), 2u);
    EXPECT_EQ(folders[0].GetString(), common.path() + "/Corvane Technologies/Velmor/Plugins");
    EXPECT_EQ(folders[1].GetString(), appData.path() + "/Corvane Technologies/velmor/plugins");

    KLV_Uninitialize();
    EXPECT_EQ(
        vlm::test::httpRequest("POST", port, "/get", R"({"Path": "$"})", "anon:anon", 1s).status,
        0);
}

TEST_F(Exports, WebAppComesFromTheMachineWideFolder) {
    const std::string folder = common.path() + "/Corvane Technologies/Velmor/webapp";
    std::filesystem::create_directories(folder);
    vlm::test::writeFile(folder + "/index.html", "<html>installed</html>");
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
    ASSERT_EQ(KLV_Initialize(-1, 0, 1), 0);
    auto page = vlm::test::httpRequest("GET", port, "/");
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(page.body, "<html>installed</html>");
}

TEST_F(Exports, InitializeAgainAfterUninitialize) {
    for (int round = 0; round < 3; ++round) {
        KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
        ASSERT_EQ(KLV_Initialize(-1, 0, 1), 0) << round;
        ASSERT_TRUE(vlm::test::waitForEngine(port, 5s)) << round;
        auto document = whole();
        EXPECT_FALSE(document["Engine"]["Master"].GetBool());
        // Filters are withdrawn with the engine: each start has only its own.
        EXPECT_EQ(document["Engine"]["InterfaceFilters"].Size(), 1u);
        KLV_Uninitialize();
    }
    KLV_Uninitialize();
}

TEST_F(Exports, SecondInitializeFailsAndTheFirstKeepsServing) {
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
    ASSERT_EQ(KLV_Initialize(-1, 0, 1), 0);
    EXPECT_NE(KLV_Initialize(-1, 0, 3), 0);
    ASSERT_TRUE(vlm::test::waitForEngine(port, 5s));
    EXPECT_FALSE(whole()["Engine"]["Master"].GetBool());
}

TEST_F(Exports, TakenPortFailsTheStart) {
    int blocker = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(blocker, 1), 0);
    socklen_t length = sizeof address;
    getsockname(blocker, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    setPort(port);

    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
    EXPECT_NE(KLV_Initialize(-1, 0, 1), 0);
    close(blocker);

    // The caller may try again with the same filters once the port is free.
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
    ASSERT_EQ(KLV_Initialize(-1, 0, 1), 0);
    ASSERT_TRUE(vlm::test::waitForEngine(port, 5s));
    EXPECT_EQ(whole()["Engine"]["InterfaceFilters"].Size(), 1u);
}

TEST_F(Exports, FiltersThatAreNotIpv4AreRefused) {
    EXPECT_NE(KLV_AddInterfaceFilter("not-an-address", "255.0.0.0"), 0);
    EXPECT_NE(KLV_AddInterfaceFilter("127.0.0.1", "::"), 0);
    EXPECT_NE(KLV_AddInterfaceFilter(nullptr, "255.0.0.0"), 0);
    EXPECT_NE(KLV_AddInterfaceFilter("127.0.0.1", nullptr), 0);
    EXPECT_EQ(KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0"), 0);
    ASSERT_EQ(KLV_Initialize(-1, 0, 1), 0);
    ASSERT_TRUE(vlm::test::waitForEngine(port, 5s));
    EXPECT_EQ(whole()["Engine"]["InterfaceFilters"].Size(), 1u);
}

TEST_F(Exports, OnlyAddressesNotOnThisMachineFailTheStart) {
    KLV_AddInterfaceFilter("192.0.2.1", "255.255.255.0");
    EXPECT_NE(KLV_Initialize(-1, 0, 1), 0);
}

TEST_F(Exports, PortZeroPicksAFreePort) {
    setPort(0);
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
    EXPECT_EQ(KLV_Initialize(-1, 0, 1), 0);
}

TEST_F(Exports, UninitializeWithoutAnEngineIsHarmless) {
    KLV_Uninitialize();
    KLV_Uninitialize();
}

}  // namespace
