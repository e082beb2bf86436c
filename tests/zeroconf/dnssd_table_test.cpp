// Runs with VELMOR_DNSSD_LIBRARY naming a file that does not exist: no DNS-SD at all.

#include "dnssd.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include "zeroconf_test_support.h"

namespace {

using zeroconf_test::recording_listener;
using zeroconf_test::stdout_capture;

constexpr DNSServiceErrorType kNotRunning = -65563;

void DNSSD_API ignore_browse(DNSServiceRef, DNSServiceFlags, uint32_t, DNSServiceErrorType,
                             const char*, const char*, const char*, void*) {}

TEST(DnssdTableTest, EveryWrapperFailsQuietlyWithoutTheLibrary) {
    stdout_capture log;
    DNSServiceRef ref = nullptr;
    EXPECT_EQ(DNSServiceBrowse(&ref, 0, 0, "_http._tcp", nullptr, &ignore_browse, nullptr),
              kNotRunning);
    EXPECT_EQ(ref, nullptr);
    EXPECT_EQ(DNSServiceResolve(&ref, 0, 0, "a", "_http._tcp", "local.", nullptr, nullptr),
              kNotRunning);
    EXPECT_EQ(DNSServiceQueryRecord(&ref, 0, 0, "a.local.", 1, 1, nullptr, nullptr), kNotRunning);
    EXPECT_EQ(DNSServiceRegister(&ref, 8, 0, "a", "_http._tcp", nullptr, nullptr, 0, 0, nullptr,
                                 nullptr, nullptr),
              kNotRunning);
    EXPECT_EQ(DNSServiceReconfirmRecord(0x800, 0, "a.local.", 1, 1, 0, nullptr), kNotRunning);
    EXPECT_EQ(DNSServiceGetAddrInfo(&ref, 0x1000, 0, 1, "a.local.", nullptr, nullptr), kNotRunning);
    EXPECT_EQ(DNSServiceProcessResult(ref), kNotRunning);
    EXPECT_EQ(DNSServiceRefSockFD(ref), -1);
    DNSServiceRefDeallocate(ref);
    // A second call finds the library just as missing.
    EXPECT_EQ(DNSServiceBrowse(&ref, 0, 0, "_http._tcp", nullptr, &ignore_browse, nullptr),
              kNotRunning);
    EXPECT_EQ(log.text(), "");
}

TEST(DnssdTableTest, BrowserFactoryWritesOneLineWithInterfaceZero) {
    stdout_capture log;
    auto client = zeroconf::client::create(-1);
    auto listener = boost::make_shared<recording_listener>();
    EXPECT_FALSE(client->create_browser("_velmor", "_http._tcp", "_ravenna", listener, false));
    EXPECT_EQ(log.count("\n"), 1u) << log.text();
    EXPECT_TRUE(log.contains(stdout_capture::line(
        3, "[0] _velmor  _http._tcp; runtime error DNSServiceBrowse() failed (-65563).\n")))
        << log.text();
}

TEST(DnssdTableTest, EveryFactoryGivesNothing) {
    stdout_capture log;
    auto client = zeroconf::client::create(0);
    auto listener = boost::make_shared<recording_listener>();
    EXPECT_FALSE(client->create_browser("", "_http._tcp", "local.", "", listener, false));
    EXPECT_FALSE(client->create_service("a", "_http._tcp", 80, {}, {}, [](int) {}));
    EXPECT_FALSE(client->create_hostname_browser("a.local.", nullptr));
    EXPECT_TRUE(
        log.contains("[0]   _http._tcp; runtime error DNSServiceBrowse() failed (-65563)."));
    EXPECT_TRUE(log.contains(
        "[0] a  _http._tcp; runtime error Could not register service \"a\" (-65563)."));
    EXPECT_TRUE(
        log.contains("[0] a.local.  ; runtime error DNSServiceGetAddrInfo() failed (-65563)."));
}

}  // namespace
