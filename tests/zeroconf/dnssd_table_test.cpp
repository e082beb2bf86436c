// The DNS-SD table without a library (VELMOR_DNSSD_LIBRARY names no file), or with one that lacks
// DNSServiceGetAddrInfo (PARTIAL_LIBRARY): the program runs on, DNS-SD failing with -65563.
#include <gtest/gtest.h>

#include "dnssd.h"
#include "zeroconf/client.h"

namespace {

void DNSSD_API ignore(DNSServiceRef, DNSServiceFlags, uint32_t, DNSServiceErrorType, const char*,
                      const char*, const char*, void*) {}

#ifndef PARTIAL_LIBRARY
// Without the library every call fails quietly, again on the next call; the factory line shows
// interface 0 for a client made with -1.
TEST(DnssdTable, WithoutTheLibraryEveryCallFailsQuietly) {
    testing::internal::CaptureStdout();
    DNSServiceRef ref = nullptr;
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(DNSServiceBrowse(&ref, 0, 0, "_http._tcp", nullptr, &ignore, nullptr), -65563);
    EXPECT_EQ(DNSServiceResolve(&ref, 0, 0, "a", "_http._tcp", "local.", nullptr, nullptr), -65563);
    EXPECT_EQ(DNSServiceQueryRecord(&ref, 0, 0, "a.local.", 1, 1, nullptr, nullptr), -65563);
    EXPECT_EQ(DNSServiceRegister(&ref, 8, 0, "a", "_t._tcp", 0, 0, 0, 0, 0, 0, 0), -65563);
    EXPECT_EQ(DNSServiceReconfirmRecord(0x800, 0, "a.local.", 1, 1, 0, nullptr), -65563);
    EXPECT_EQ(DNSServiceGetAddrInfo(&ref, 0x1000, 0, 1, "a.local.", nullptr, nullptr), -65563);
    EXPECT_EQ(DNSServiceProcessResult(ref), -65563);
    EXPECT_EQ(DNSServiceRefSockFD(ref), -1);
    DNSServiceRefDeallocate(ref);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    testing::internal::CaptureStdout();
    EXPECT_FALSE(zeroconf::client::create(-1)->create_browser("_velmor", "_http._tcp", "_ravenna",
                                                              nullptr, false));
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("zeroconf_category: [0] _velmor  _http._tcp; runtime error "
                       "DNSServiceBrowse() failed (-65563).\n"),
              std::string::npos);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
}
#else
// Only the missing export fails, and it is looked up again on every call.
TEST(DnssdTable, OnlyTheMissingExportFails) {
    DNSServiceRef ref = nullptr;
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(DNSServiceGetAddrInfo(&ref, 0x1000, 0, 1, "a.local.", nullptr, nullptr), -65563);
    ASSERT_EQ(DNSServiceBrowse(&ref, 0, 0, "_http._tcp", nullptr, &ignore, nullptr), 0);
    DNSServiceRefDeallocate(ref);
}
#endif

}  // namespace
