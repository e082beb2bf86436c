// The DNS-SD table with a library that lacks DNSServiceGetAddrInfo, as an older dnssd.dll does.
#include <gtest/gtest.h>

#include "dnssd.h"
#include "zeroconf/client.h"

namespace {

void DNSSD_API ignore(DNSServiceRef, DNSServiceFlags, uint32_t, DNSServiceErrorType, const char*,
                      const char*, const char*, void*) {}

// Only the missing export fails (-65563, as for a missing library), and it is looked up again on
// every call; nothing is logged.
TEST(DnssdTable, OnlyTheMissingExportFails) {
    testing::internal::CaptureStdout();
    DNSServiceRef ref = nullptr;
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(DNSServiceGetAddrInfo(&ref, 0x1000, 0, 1, "a.local.", nullptr, nullptr), -65563);
    ASSERT_EQ(DNSServiceBrowse(&ref, 0, 0, "_http._tcp", nullptr, &ignore, nullptr), 0);
    DNSServiceRefDeallocate(ref);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    // The factory's line; a client made with -1 serves interface 0.
    testing::internal::CaptureStdout();
    EXPECT_FALSE(zeroconf::client::create(-1)->create_hostname_browser("h.local.", nullptr));
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "zeroconf_category: [0] h.local.  ; runtime error DNSServiceGetAddrInfo() failed "
                  "(-65563).\n"),
              std::string::npos);
}

}  // namespace
