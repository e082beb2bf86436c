// Runs with a DNS-SD library that lacks DNSServiceGetAddrInfo.

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include "dnssd.h"
#include "zeroconf_test_support.h"

namespace {

using namespace zeroconf_test;

class DnssdTablePartialTest : public fake_test {};

TEST_F(DnssdTablePartialTest, OnlyTheMissingExportFails) {
    DNSServiceRef ref = nullptr;
    EXPECT_EQ(DNSServiceGetAddrInfo(&ref, 0x1000, 0, 1, "a.local.", nullptr, nullptr), -65563);
    EXPECT_EQ(DNSServiceGetAddrInfo(&ref, 0x1000, 0, 1, "a.local.", nullptr, nullptr), -65563);
    EXPECT_EQ(ref, nullptr);

    ASSERT_EQ(DNSServiceQueryRecord(&ref, 0, 0, "a.local.", 1, 1, nullptr, nullptr), 0);
    ASSERT_NE(ref, nullptr);
    EXPECT_GE(DNSServiceRefSockFD(ref), 0);
    DNSServiceRefDeallocate(ref);
    EXPECT_EQ(fake().open_count(nullptr), 0);
}

TEST_F(DnssdTablePartialTest, HostnameBrowserFailsWhileBrowsingWorks) {
    auto client = zeroconf::client::create(-1);
    EXPECT_FALSE(client->create_hostname_browser("a.local.", nullptr));
    EXPECT_TRUE(log.contains(stdout_capture::line(
        3, "[0] a.local.  ; runtime error DNSServiceGetAddrInfo() failed (-65563).\n")));

    auto listener = boost::make_shared<recording_listener>();
    auto browser = client->create_browser("", "_http._tcp", "", listener, false);
    ASSERT_TRUE(browser);
    ASSERT_EQ(fake().browse_event("_http._tcp", 0, 1, 0, "a", "_http._tcp.", "local."), 0);
    ASSERT_TRUE(listener->wait_for(1));
}

}  // namespace
