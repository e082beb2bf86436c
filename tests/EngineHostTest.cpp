#include <gtest/gtest.h>

#include <QNetworkInterface>

#include "Agent/Agent.h"
#include "support/TestSupport.h"

namespace {

std::vector<std::string> idsFrom(const char* text) {
    vlm::json::Document document;
    EXPECT_TRUE(vlm::json::parseString(document, text));
    return vlm::interfaceHardwareIdsFrom(&document);
}

using Ids = std::vector<std::string>;

TEST(InterfaceHardwareIds, AbsentFilteringMeansNone) {
    EXPECT_EQ(idsFrom("{}"), Ids{"0"});
    EXPECT_EQ(idsFrom(R"({"discovery": {}})"), Ids{"0"});
    EXPECT_EQ(idsFrom(R"({"discovery": {"filtering": []}})"), Ids{"0"});
    EXPECT_EQ(vlm::interfaceHardwareIdsFrom(nullptr), Ids{"0"});
}

TEST(InterfaceHardwareIds, ReadsEveryElementInOrder) {
    EXPECT_EQ(idsFrom(R"({"discovery": {"filtering": [{"hardware_id": "AA:BB:CC:00:00:01"},
                                                      {"hardware_id": "0"}]}})"),
              (Ids{"AA:BB:CC:00:00:01", "0"}));
    EXPECT_EQ(idsFrom(R"({"discovery": {"filtering": [{"hardware_id": "0"}]}})"), Ids{"0"});
}

TEST(InterfaceHardwareIds, WrongTypesNeverCrash) {
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(idsFrom(R"({"discovery": {"filtering": {}}})"), Ids{"0"});
    EXPECT_EQ(idsFrom(R"({"discovery": 5})"), Ids{"0"});
    EXPECT_EQ(idsFrom(R"({"discovery": {"filtering": [{"other": 1}, 3, {"hardware_id": 7}]}})"),
              (Ids{"", "", ""}));
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("not an object [filtering]\n"), std::string::npos) << out;
    EXPECT_NE(out.find("rapidJson: member hardware_id not found; please fix it!\n"),
              std::string::npos);
}

// The machine's own interfaces, as the platform reports them.
struct Candidate {
    std::string hardware;
    std::string address;
    std::string netmask;
};

std::vector<Candidate> upInterfacesWithIPv4() {
    std::vector<Candidate> found;
    for (const QNetworkInterface& interface : QNetworkInterface::allInterfaces()) {
        if (!(interface.flags() & QNetworkInterface::IsUp) ||
            (interface.flags() & QNetworkInterface::IsLoopBack))
            continue;
        for (const QNetworkAddressEntry& entry : interface.addressEntries()) {
            if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol) {
                found.push_back({interface.hardwareAddress().toStdString(),
                                 entry.ip().toString().toStdString(),
                                 entry.netmask().toString().toStdString()});
                break;
            }
        }
    }
    return found;
}

TEST(InterfaceFilters, NoFilteringAddsNothing) {
    vlm::InterfaceFilters filters;
    vlm::interfaceFiltersFor({"0"}, QNetworkInterface::allInterfaces(), filters);
    EXPECT_TRUE(filters.empty());
}

TEST(InterfaceFilters, MachineInterfacesMatchByHardwareAddress) {
    auto candidates = upInterfacesWithIPv4();
    if (candidates.empty())
        GTEST_SKIP() << "no up interface with IPv4 here; the namespace tests cover matching";
    const Candidate& first = candidates.front();
    vlm::InterfaceFilters filters;
    vlm::interfaceFiltersFor({"11:22:33:44:55:66", first.hardware},
                             QNetworkInterface::allInterfaces(), filters);
    ASSERT_FALSE(filters.empty());
    EXPECT_EQ(filters.front(), vlm::InterfaceFilter(first.address, first.netmask));
}

TEST(InterfaceFilters, LoopbackNeverMatches) {
    vlm::InterfaceFilters filters;
    // The loopback interface reports an all-zero hardware address.
    vlm::interfaceFiltersFor({"00:00:00:00:00:00"}, QNetworkInterface::allInterfaces(), filters);
    for (const auto& filter : filters)
        EXPECT_NE(filter.first, "127.0.0.1");
}

TEST(EngineHost, ProcessAliveTest) {
    EXPECT_TRUE(vlm::Agent::isProcessAlive(static_cast<std::uint32_t>(getpid())));
    EXPECT_FALSE(vlm::Agent::isProcessAlive(0));
    EXPECT_FALSE(vlm::Agent::isProcessAlive(0xFFFFFFFFu));
    pid_t child = fork();
    if (child == 0)
        _exit(0);
    // Until it is reaped the child is a zombie: ended, though its id still answers.
    for (int i = 0; i < 500 && vlm::Agent::isProcessAlive(static_cast<std::uint32_t>(child)); ++i)
        usleep(10000);
    EXPECT_FALSE(vlm::Agent::isProcessAlive(static_cast<std::uint32_t>(child)));
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_FALSE(vlm::Agent::isProcessAlive(static_cast<std::uint32_t>(child)));
}

}  // namespace
