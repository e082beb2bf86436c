#include "bonjour_browser.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "zeroconf_test_support.h"

namespace {

using namespace zeroconf_test;

constexpr const char* kType = "_http._tcp";
constexpr const char* kRegtype = "_http._tcp,_ravenna";
constexpr const char* kEventType = "_http._tcp.";
constexpr std::uint32_t kAdd = 2;
constexpr std::uint32_t kInterface = 3;
const unsigned char kAddress[4] = {192, 168, 1, 20};

TEST(InstanceNameTest, EndsAtTheFirstUnescapedDot) {
    EXPECT_EQ(zeroconf::instance_part("_velmor_a._http._tcp.local."), "_velmor_a");
    EXPECT_EQ(zeroconf::instance_part("My\\.Server._http._tcp.local."), "My\\.Server");
    EXPECT_EQ(zeroconf::instance_part("Studio\\\\._http._tcp.local."), "Studio\\\\");
    EXPECT_EQ(zeroconf::instance_part("A\\\\\\.B._http._tcp.local."), "A\\\\\\.B");
}

TEST(InstanceNameTest, WithoutAnUnescapedDotTheNameIsIllegal) {
    try {
        zeroconf::instance_part("Studio\\.local");
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "illegal service name");
    }
    EXPECT_THROW(zeroconf::instance_part(""), std::runtime_error);
}

TEST(InstanceNameTest, EscapesAreUndone) {
    EXPECT_EQ(zeroconf::unescape_instance_name("My\\.Server"), "My.Server");
    EXPECT_EQ(zeroconf::unescape_instance_name("Studio\\\\"), "Studio\\");
    EXPECT_EQ(zeroconf::unescape_instance_name("Studio\\032A"), "Studio A");
    EXPECT_EQ(zeroconf::unescape_instance_name("A\\\\\\.B"), "A\\.B");
    EXPECT_EQ(zeroconf::unescape_instance_name("caf\\195\\169"), "caf\xc3\xa9");
    // Too short for a decimal escape, or not digits: the backslash stays.
    EXPECT_EQ(zeroconf::unescape_instance_name("end\\03"), "end\\03");
    EXPECT_EQ(zeroconf::unescape_instance_name("x\\abc"), "x\\abc");
}

class BonjourBrowserTest : public fake_test {
protected:
    void TearDown() override {
        browser.reset();
        client.reset();
        EXPECT_TRUE(eventually([] { return fake().open_count(nullptr) == 0; }))
            << "an operation was never closed";
        fake_test::TearDown();
    }

    void open(const std::string& name_filter = "", bool reconfirm = false) {
        client = zeroconf::client::create(-1, time);
        browser = client->create_browser(name_filter, kType, "_ravenna", listener, reconfirm);
        ASSERT_TRUE(browser);
    }

    // Announces name and answers its resolve, up to the open address query.
    void announce(const char* name, const char* fullname, const char* host,
                  const std::string& txt = "\x08master:1") {
        ASSERT_EQ(fake().browse_event(kRegtype, kAdd, kInterface, 0, name, kEventType, "local."),
                  0);
        ASSERT_TRUE(fake().wait_open("DNSServiceResolve", name, timeout_ms));
        ASSERT_EQ(fake().resolve_answer(name, kAdd, kInterface, 0, fullname, host, htons(8080),
                                        static_cast<std::uint16_t>(txt.size()),
                                        reinterpret_cast<const unsigned char*>(txt.data())),
                  0);
        ASSERT_TRUE(fake().wait_open("DNSServiceQueryRecord", host, timeout_ms));
    }

    void answer_address(const char* host, const unsigned char (&address)[4] = kAddress) {
        ASSERT_EQ(fake().query_answer(host, kAdd, kInterface, 0, host, 1, 1, 4, address, 120), 0);
    }

    // Two poll cycles later, every check of the cycle under way has run.
    void wait_for_poll_cycles() {
        ASSERT_TRUE(fake().wait_idle(timeout_ms));
        int start = fake().calls("DNSServiceRefSockFD");
        int operations = fake().open_count(nullptr);
        ASSERT_TRUE(eventually(
            [&] { return fake().calls("DNSServiceRefSockFD") >= start + 2 * operations; }));
    }

    boost::shared_ptr<manual_clock> time = boost::make_shared<manual_clock>();
    boost::shared_ptr<recording_listener> listener = boost::make_shared<recording_listener>();
    boost::shared_ptr<zeroconf::client> client;
    boost::shared_ptr<zeroconf::browser> browser;
};

TEST_F(BonjourBrowserTest, ResolvedInstanceReachesTheListener) {
    open();
    EXPECT_EQ(fake().last("DNSServiceBrowse"),
              "flags=262144 interface=0 regtype=_http._tcp,_ravenna domain=(null)");
    announce("_velmor_host", "_velmor_host._http._tcp.local.", "host.local.");
    EXPECT_EQ(fake().last("DNSServiceResolve"),
              "flags=2 interface=3 name=_velmor_host regtype=_http._tcp. domain=local.");
    EXPECT_EQ(fake().last("DNSServiceQueryRecord"),
              "flags=0 interface=3 fullname=host.local. rrtype=1 rrclass=1");
    answer_address("host.local.");

    ASSERT_TRUE(listener->wait_for(1));
    browser_event event = listener->events()[0];
    EXPECT_TRUE(event.added);
    EXPECT_EQ(event.interface_index, kInterface);
    EXPECT_EQ(event.name, "_velmor_host");
    EXPECT_EQ(event.type, kEventType);
    EXPECT_EQ(event.host, "host.local.");
    EXPECT_EQ(event.address, "192.168.1.20");
    EXPECT_EQ(event.port, 8080);
    EXPECT_EQ(event.txt, std::vector<std::string>{"master:1"});
    // One address per resolve: the chain has closed its operations.
    EXPECT_TRUE(eventually([] { return fake().open_count("DNSServiceQueryRecord") == 0; }));
    EXPECT_EQ(fake().open_count("DNSServiceResolve"), 0);
    EXPECT_EQ(fake().calls("DNSServiceReconfirmRecord"), 0);
}

TEST_F(BonjourBrowserTest, BrowseWithADomainUsesEveryInterface) {
    client = zeroconf::client::create(5, time);
    browser = client->create_browser("", kType, "local.", "", listener, false);
    ASSERT_TRUE(browser);
    EXPECT_EQ(fake().last("DNSServiceBrowse"),
              "flags=262144 interface=0 regtype=_http._tcp domain=local.");
    auto second = client->create_browser("", kType, "", listener, false);
    ASSERT_TRUE(second);
    EXPECT_EQ(fake().last("DNSServiceBrowse"),
              "flags=262144 interface=5 regtype=_http._tcp domain=(null)");
}

TEST_F(BonjourBrowserTest, RemoveCarriesTheNameAsReceived) {
    open();
    ASSERT_EQ(fake().browse_event(kRegtype, 0, kInterface, 0, "My\\.Server", kEventType, "local."),
              0);
    ASSERT_TRUE(listener->wait_for(1));
    browser_event event = listener->events()[0];
    EXPECT_FALSE(event.added);
    EXPECT_EQ(event.interface_index, kInterface);
    EXPECT_EQ(event.name, "My\\.Server");
    EXPECT_EQ(event.type, kEventType);
    EXPECT_EQ(fake().calls("DNSServiceResolve"), 0);
}

TEST_F(BonjourBrowserTest, EscapedDotBelongsToTheName) {
    open();
    announce("My\\.Server", "My\\.Server._http._tcp.local.", "host.local.");
    answer_address("host.local.");
    ASSERT_TRUE(listener->wait_for(1));
    EXPECT_EQ(listener->events()[0].name, "My.Server");
}

TEST_F(BonjourBrowserTest, DoubleBackslashBeforeADotEndsTheName) {
    open();
    announce("Studio\\\\", "Studio\\\\._http._tcp.local.", "host.local.");
    answer_address("host.local.");
    ASSERT_TRUE(listener->wait_for(1));
    EXPECT_EQ(listener->events()[0].name, "Studio\\");
}

TEST_F(BonjourBrowserTest, DecimalEscapeBecomesOneByte) {
    open();
    announce("Studio\\032A", "Studio\\032A._http._tcp.local.", "host.local.");
    answer_address("host.local.");
    ASSERT_TRUE(listener->wait_for(1));
    EXPECT_EQ(listener->events()[0].name, "Studio A");
}

TEST_F(BonjourBrowserTest, FullNameWithoutUnescapedDotIsRejected) {
    open();
    ASSERT_EQ(fake().browse_event(kRegtype, kAdd, kInterface, 0, "odd", kEventType, "local."), 0);
    ASSERT_TRUE(fake().wait_open("DNSServiceResolve", "odd", timeout_ms));
    ASSERT_EQ(fake().resolve_answer("odd", kAdd, kInterface, 0, "odd\\.local", "host.local.",
                                    htons(80), 0, nullptr),
              0);
    ASSERT_TRUE(log.wait_for(stdout_capture::line(3, "exception in DNSServiceProcessResult\n")));
    ASSERT_TRUE(fake().wait_idle(timeout_ms));
    EXPECT_EQ(fake().calls("DNSServiceQueryRecord"), 0);
    EXPECT_TRUE(listener->events().empty());
    // The resolve stays open until the stale check, run when a later operation has an answer.
    EXPECT_EQ(fake().open_count("DNSServiceResolve"), 1);
    time->advance(std::chrono::minutes(5));
    auto later = client->create_browser("", "_other._tcp", "", listener, false);
    ASSERT_TRUE(later);
    ASSERT_EQ(fake().browse_event("_other._tcp", 0, kInterface, 0, "x", "_other._tcp.", "local."),
              0);
    ASSERT_TRUE(log.wait_for("Bonjour has left a query incomplete"));
    EXPECT_TRUE(eventually([] { return fake().open_count("DNSServiceResolve") == 0; }));
}

TEST_F(BonjourBrowserTest, NameFilterIgnoresOtherInstances) {
    open("_velmor_a");
    ASSERT_EQ(fake().browse_event(kRegtype, kAdd, kInterface, 0, "_velmor_b", kEventType, "local."),
              0);
    ASSERT_EQ(fake().browse_event(kRegtype, 0, kInterface, 0, "_velmor_b", kEventType, "local."),
              0);
    ASSERT_TRUE(fake().wait_idle(timeout_ms));
    EXPECT_EQ(fake().calls("DNSServiceResolve"), 0);
    EXPECT_TRUE(listener->events().empty());

    ASSERT_EQ(fake().browse_event(kRegtype, 0, kInterface, 0, "_velmor_a", kEventType, "local."),
              0);
    ASSERT_TRUE(listener->wait_for(1));
    EXPECT_EQ(listener->events()[0].name, "_velmor_a");
}

TEST_F(BonjourBrowserTest, WithNameFilterOnlyTheLastAnnouncementIsReported) {
    open("_velmor_a");
    ASSERT_EQ(fake().browse_event(kRegtype, kAdd, kInterface, 0, "_velmor_a", kEventType, "local."),
              0);
    ASSERT_TRUE(fake().wait_open("DNSServiceResolve", "_velmor_a", timeout_ms));
    ASSERT_EQ(fake().browse_event(kRegtype, 0, kInterface, 0, "_velmor_a", kEventType, "local."),
              0);
    announce("_velmor_a", "_velmor_a._http._tcp.local.", "old.local.");
    ASSERT_TRUE(fake().wait_open("DNSServiceResolve", "_velmor_a", timeout_ms));
    ASSERT_EQ(fake().resolve_answer("_velmor_a", kAdd, kInterface, 0, "_velmor_a._http._tcp.local.",
                                    "new.local.", htons(8080), 0, nullptr),
              0);
    ASSERT_TRUE(fake().wait_open("DNSServiceQueryRecord", "new.local.", timeout_ms));

    const unsigned char old_address[4] = {10, 0, 0, 1};
    const unsigned char new_address[4] = {10, 0, 0, 2};
    answer_address("old.local.", old_address);
    answer_address("new.local.", new_address);
    ASSERT_TRUE(listener->wait_for(2));
    ASSERT_TRUE(fake().wait_idle(timeout_ms));
    auto events = listener->events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_FALSE(events[0].added);
    EXPECT_TRUE(events[1].added);
    EXPECT_EQ(events[1].address, "10.0.0.2");
    EXPECT_EQ(events[1].host, "new.local.");
}

TEST_F(BonjourBrowserTest, WithoutNameFilterEveryAnnouncementIsReported) {
    open();
    announce("_velmor_a", "_velmor_a._http._tcp.local.", "old.local.");
    announce("_velmor_a", "_velmor_a._http._tcp.local.", "new.local.");
    const unsigned char old_address[4] = {10, 0, 0, 1};
    const unsigned char new_address[4] = {10, 0, 0, 2};
    answer_address("old.local.", old_address);
    answer_address("new.local.", new_address);
    ASSERT_TRUE(listener->wait_for(2));
    auto events = listener->events();
    EXPECT_EQ(events[0].address, "10.0.0.1");
    EXPECT_EQ(events[1].address, "10.0.0.2");
}

TEST_F(BonjourBrowserTest, IPv6AnswerIsIgnoredAndTheStaleCheckEndsTheQuery) {
    open();
    announce("_velmor_a", "_velmor_a._http._tcp.local.", "a.local.");
    int query_socket = fake().socket("DNSServiceQueryRecord", "a.local.");
    const unsigned char ipv6[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    ASSERT_EQ(
        fake().query_answer("a.local.", kAdd, kInterface, 0, "a.local.", 28, 1, 16, ipv6, 120), 0);
    ASSERT_TRUE(log.wait_for(
        stdout_capture::line(3, "Bonjour DNSServiceQueryRecord IPV6 unmanaged qr_reply!\n")));
    EXPECT_EQ(fake().socket("DNSServiceQueryRecord", "a.local."), query_socket);

    // Stale checks run for quiet operations when a later one has an answer.
    time->advance(std::chrono::minutes(5) - std::chrono::nanoseconds(1));
    announce("_velmor_b", "_velmor_b._http._tcp.local.", "b.local.");
    wait_for_poll_cycles();
    EXPECT_FALSE(log.contains("Bonjour has left a query incomplete"));
    EXPECT_EQ(fake().socket("DNSServiceQueryRecord", "a.local."), query_socket);

    time->advance(std::chrono::nanoseconds(1));
    answer_address("b.local.");
    ASSERT_TRUE(log.wait_for(stdout_capture::line(
        3, "Bonjour has left a query incomplete. We need to clean up the leftover socket: " +
               std::to_string(query_socket) + "\n")));
    EXPECT_TRUE(eventually([] { return fake().open_count("DNSServiceQueryRecord") == 0; }));
    ASSERT_TRUE(listener->wait_for(1));
    auto events = listener->events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "_velmor_b");
}

TEST_F(BonjourBrowserTest, ReconfirmAsksTheDaemonAndStillReports) {
    open("", true);
    announce("_velmor_a", "_velmor_a._http._tcp.local.", "a.local.");
    answer_address("a.local.");
    ASSERT_TRUE(listener->wait_for(1));
    EXPECT_EQ(listener->events()[0].address, "192.168.1.20");
    EXPECT_TRUE(log.contains(stdout_capture::line(
        4, "a.local. seems out dated -> force daemon to verify the validity of this record\n")));
    EXPECT_EQ(fake().last("DNSServiceReconfirmRecord"),
              "flags=2048 interface=3 fullname=a.local. rrtype=1 rrclass=1 rdata=c0a80114");
}

TEST_F(BonjourBrowserTest, BrowseErrorIsLoggedOnly) {
    open();
    ASSERT_EQ(
        fake().browse_event(kRegtype, kAdd, kInterface, -65537, "_velmor_a", kEventType, "local."),
        0);
    ASSERT_TRUE(log.wait_for(stdout_capture::line(3, "errorCode = -65537\n")));
    ASSERT_TRUE(fake().wait_idle(timeout_ms));
    EXPECT_EQ(fake().calls("DNSServiceResolve"), 0);
    EXPECT_TRUE(listener->events().empty());
}

TEST_F(BonjourBrowserTest, ResolveErrorEndsTheChain) {
    open();
    ASSERT_EQ(fake().browse_event(kRegtype, kAdd, kInterface, 0, "_velmor_a", kEventType, "local."),
              0);
    ASSERT_TRUE(fake().wait_open("DNSServiceResolve", "_velmor_a", timeout_ms));
    ASSERT_EQ(
        fake().resolve_answer("_velmor_a", 0, kInterface, -65538, "_velmor_a._http._tcp.local.",
                              "a.local.", htons(80), 0, nullptr),
        0);
    ASSERT_TRUE(log.wait_for(stdout_capture::line(3, "errorCode = -65538\n")));
    EXPECT_TRUE(eventually([] { return fake().open_count("DNSServiceResolve") == 0; }));
    EXPECT_EQ(fake().calls("DNSServiceQueryRecord"), 0);
}

TEST_F(BonjourBrowserTest, QueryErrorEndsTheChain) {
    open();
    announce("_velmor_a", "_velmor_a._http._tcp.local.", "a.local.");
    ASSERT_EQ(
        fake().query_answer("a.local.", 0, kInterface, -65554, "a.local.", 1, 1, 0, nullptr, 0), 0);
    ASSERT_TRUE(log.wait_for(stdout_capture::line(3, "errorCode = -65554\n")));
    EXPECT_TRUE(eventually([] { return fake().open_count("DNSServiceQueryRecord") == 0; }));
    EXPECT_TRUE(listener->events().empty());
}

TEST_F(BonjourBrowserTest, RefusedResolveIsGivenUp) {
    open();
    fake().fail("DNSServiceResolve", -65539);
    ASSERT_EQ(fake().browse_event(kRegtype, kAdd, kInterface, 0, "_velmor_a", kEventType, "local."),
              0);
    ASSERT_TRUE(log.wait_for(stdout_capture::line(3, "DNSServiceResolve() failed (-65539)\n")));
    ASSERT_TRUE(fake().wait_idle(timeout_ms));
    EXPECT_EQ(fake().open_count(nullptr), 1);
    EXPECT_TRUE(listener->events().empty());
}

TEST_F(BonjourBrowserTest, QueryRefusedForBadParametersLogsTheCalls) {
    open();
    fake().fail("DNSServiceQueryRecord", -65540);
    ASSERT_EQ(fake().browse_event(kRegtype, kAdd, kInterface, 0, "_velmor_a", kEventType, "local."),
              0);
    ASSERT_TRUE(fake().wait_open("DNSServiceResolve", "_velmor_a", timeout_ms));
    ASSERT_EQ(fake().resolve_answer("_velmor_a", 0, kInterface, 0, "_velmor_a._http._tcp.local.",
                                    "a.local.", htons(8080), 0, nullptr),
              0);
    ASSERT_TRUE(log.wait_for("resolve_reply(n/a, 0, _velmor_a._http._tcp.local., a.local., " +
                             std::to_string(htons(8080)) + ", 0, (nil), 0x"));
    EXPECT_TRUE(log.contains(stdout_capture::line(3, "DNSServiceQueryRecord failed (-65540)\n")));
    EXPECT_TRUE(log.contains("DNSServiceQueryRecord failed (-65540 = wrong parameters)\n"));
    EXPECT_TRUE(log.contains(", 0, 3, a.local., 1, 1, 0x"));
    EXPECT_TRUE(eventually([] { return fake().open_count(nullptr) == 1; }));
}

TEST_F(BonjourBrowserTest, QueryRefusedOtherwiseLogsTheCodeTwice) {
    open();
    fake().fail("DNSServiceQueryRecord", -65539);
    ASSERT_EQ(fake().browse_event(kRegtype, kAdd, kInterface, 0, "_velmor_a", kEventType, "local."),
              0);
    ASSERT_TRUE(fake().wait_open("DNSServiceResolve", "_velmor_a", timeout_ms));
    ASSERT_EQ(fake().resolve_answer("_velmor_a", 0, kInterface, 0, "_velmor_a._http._tcp.local.",
                                    "a.local.", htons(8080), 0, nullptr),
              0);
    ASSERT_TRUE(
        log.wait_for(stdout_capture::line(3, "DNSServiceQueryRecord failed (-65539)\n"), 2));
    EXPECT_TRUE(eventually([] { return fake().open_count(nullptr) == 1; }));
}

TEST_F(BonjourBrowserTest, ResolvesOutliveTheirBrowser) {
    open();
    ASSERT_EQ(fake().browse_event(kRegtype, kAdd, kInterface, 0, "_velmor_a", kEventType, "local."),
              0);
    ASSERT_TRUE(fake().wait_open("DNSServiceResolve", "_velmor_a", timeout_ms));
    browser.reset();
    EXPECT_TRUE(eventually([] { return fake().open_count("DNSServiceBrowse") == 0; }));
    ASSERT_EQ(fake().resolve_answer("_velmor_a", 0, kInterface, 0, "_velmor_a._http._tcp.local.",
                                    "a.local.", htons(8080), 0, nullptr),
              0);
    ASSERT_TRUE(fake().wait_open("DNSServiceQueryRecord", "a.local.", timeout_ms));
    answer_address("a.local.");
    ASSERT_TRUE(listener->wait_for(1));
    EXPECT_EQ(listener->events()[0].name, "_velmor_a");
}

TEST_F(BonjourBrowserTest, RefusedBrowseGivesNoBrowserAndOneLine) {
    fake().fail("DNSServiceBrowse", -65555);
    client = zeroconf::client::create(7, time);
    EXPECT_FALSE(client->create_browser("_velmor_a", kType, "_ravenna", listener, false));
    EXPECT_EQ(log.count("runtime error"), 1u);
    EXPECT_TRUE(log.contains(stdout_capture::line(
        3, "[7] _velmor_a  _http._tcp; runtime error DNSServiceBrowse() failed (-65555).\n")));
    EXPECT_EQ(fake().last("DNSServiceBrowse"),
              "flags=262144 interface=7 regtype=_http._tcp,_ravenna domain=(null)");
}

}  // namespace
