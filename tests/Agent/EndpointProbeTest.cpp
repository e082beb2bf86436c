#include "Agent/EndpointProbe.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <QHostAddress>
#include <fstream>

namespace {

vlm::json::Document parse(const char* text) {
    vlm::json::Document document;
    vlm::json::parseString(document, text);
    return document;
}

TEST(EndpointProbe, ConfiguredAddressWinsAsItStands) {
    auto config = parse(R"({"server": {"ip": "192.168.10.5"}})");
    EXPECT_EQ(vlm::probeLocalAddress(&config), "192.168.10.5");
}

TEST(EndpointProbe, EmptyOrWrongConfiguredAddressIsProbed) {
    for (const char* text : {R"({"server": {"ip": ""}})", R"({"server": {"ip": 5}})", "{}", "[]"}) {
        auto config = parse(text);
        ::testing::internal::CaptureStdout();
        std::string address = vlm::probeLocalAddress(&config, "127.0.0.2");
        ::testing::internal::GetCapturedStdout();
        // The route to a loopback address leaves from the loopback interface.
        EXPECT_EQ(address, "127.0.0.1") << text;
    }
}

// The fallback resolves the host name; only where the hosts file answers, so no query leaves.
bool hostNameInHostsFile() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    std::ifstream hosts("/etc/hosts");
    std::string line;
    while (std::getline(hosts, line))
        if (line.find(name) != std::string::npos && line.find('#') != 0)
            return true;
    return false;
}

TEST(EndpointProbe, UnroutableAddressFallsBackToTheHostName) {
    if (!hostNameInHostsFile())
        GTEST_SKIP() << "the host name is not in /etc/hosts";
    auto config = parse("{}");
    // A broadcast destination cannot be connected to without SO_BROADCAST.
    std::string address = vlm::probeLocalAddress(&config, "255.255.255.255");
    QHostAddress parsed(QString::fromStdString(address));
    EXPECT_EQ(parsed.protocol(), QAbstractSocket::IPv4Protocol) << address;
}

TEST(EndpointProbe, UnresolvableAddressFallsBackToo) {
    if (!hostNameInHostsFile())
        GTEST_SKIP() << "the host name is not in /etc/hosts";
    auto config = parse("{}");
    std::string address = vlm::probeLocalAddress(&config, "not an address");
    EXPECT_EQ(QHostAddress(QString::fromStdString(address)).protocol(),
              QAbstractSocket::IPv4Protocol)
        << address;
}

}  // namespace
