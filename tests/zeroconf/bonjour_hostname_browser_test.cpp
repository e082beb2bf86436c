#include "bonjour_hostname_browser.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <mutex>
#include <string>
#include <vector>

#include "zeroconf_test_support.h"

namespace {

using namespace zeroconf_test;

constexpr std::uint32_t kAdd = 2;
const unsigned char kIPv4[4] = {10, 1, 2, 3};
const unsigned char kIPv6[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

struct host_event {
    bool added;
    std::uint32_t interface_index;
    std::string host;
    std::string address;
};

/// \brief Records host-name answers.
class recording_hostname_listener : public zeroconf::hostname_listener {
public:
    void add(std::uint32_t interface_index, const char* host_name, const char* address) override {
        std::lock_guard<std::mutex> hold(mutex_);
        events_.push_back({true, interface_index, host_name, address});
    }
    void remove(std::uint32_t interface_index, const char* host_name) override {
        std::lock_guard<std::mutex> hold(mutex_);
        events_.push_back({false, interface_index, host_name, ""});
    }
    std::vector<host_event> events() const {
        std::lock_guard<std::mutex> hold(mutex_);
        return events_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<host_event> events_;
};

class BonjourHostnameBrowserTest : public fake_test {
protected:
    void SetUp() override {
        fake_test::SetUp();
        browser = client->create_hostname_browser("studio.local.", listener);
        ASSERT_TRUE(browser);
    }
    void TearDown() override {
        browser.reset();
        client.reset();
        EXPECT_EQ(fake().open_count(nullptr), 0);
        fake_test::TearDown();
    }

    std::vector<host_event> wait_for_events(std::size_t count) {
        EXPECT_TRUE(eventually([&] { return listener->events().size() >= count; }));
        return listener->events();
    }

    std::string listener_text() const {
        char text[32];
        std::snprintf(text, sizeof(text), "[%p]", static_cast<void*>(listener.get()));
        return text;
    }

    boost::shared_ptr<zeroconf::client> client = zeroconf::client::create(-1);
    boost::shared_ptr<recording_hostname_listener> listener =
        boost::make_shared<recording_hostname_listener>();
    boost::shared_ptr<zeroconf::hostname_browser> browser;
};

TEST_F(BonjourHostnameBrowserTest, AsksForIPv4WithIntermediateAnswers) {
    EXPECT_EQ(fake().last("DNSServiceGetAddrInfo"),
              "flags=4096 interface=0 protocol=1 hostname=studio.local.");
}

TEST_F(BonjourHostnameBrowserTest, IPv4AddressIsReported) {
    ASSERT_EQ(fake().address_answer("studio.local.", kAdd, 2, 0, "studio.local.", 2, kIPv4), 0);
    auto events = wait_for_events(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].added);
    EXPECT_EQ(events[0].interface_index, 2u);
    EXPECT_EQ(events[0].host, "studio.local.");
    EXPECT_EQ(events[0].address, "10.1.2.3");
    // The structure itself is printed: its first byte is the family.
    EXPECT_TRUE(log.contains(
        stdout_capture::line(7, listener_text() + " Hostname Resolved studio.local. -> \x02\n")))
        << log.text();
}

TEST_F(BonjourHostnameBrowserTest, IPv6AddressGivesAnEmptyText) {
    ASSERT_EQ(fake().address_answer("studio.local.", kAdd, 2, 0, "studio.local.", 10, kIPv6), 0);
    auto events = wait_for_events(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].added);
    EXPECT_EQ(events[0].address, "");
}

TEST_F(BonjourHostnameBrowserTest, RemovalIsReported) {
    ASSERT_EQ(fake().address_answer("studio.local.", 0, 2, 0, "studio.local.", 2, kIPv4), 0);
    auto events = wait_for_events(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_FALSE(events[0].added);
    EXPECT_EQ(events[0].host, "studio.local.");
    EXPECT_TRUE(
        log.contains(stdout_capture::line(7, listener_text() + " Hostname Rmv studio.local.\n")));
}

TEST_F(BonjourHostnameBrowserTest, AnswerForAnotherHostIsIgnoredSilently) {
    ASSERT_EQ(fake().address_answer("studio.local.", kAdd, 2, 0, "other.local.", 2, kIPv4), 0);
    ASSERT_TRUE(fake().wait_idle(timeout_ms));
    EXPECT_EQ(fake().calls("DNSServiceProcessResult"), 1);
    EXPECT_TRUE(listener->events().empty());
    EXPECT_EQ(log.text(), "");
}

TEST_F(BonjourHostnameBrowserTest, ErrorAnswerIsOnlyLogged) {
    ASSERT_EQ(fake().address_answer("studio.local.", 0, 2, -65554, "studio.local.", 0, nullptr), 0);
    ASSERT_TRUE(log.wait_for(stdout_capture::line(3, "errorCode = -65554\n")));
    ASSERT_TRUE(fake().wait_idle(timeout_ms));
    EXPECT_TRUE(listener->events().empty());
    EXPECT_EQ(fake().open_count("DNSServiceGetAddrInfo"), 1);

    ASSERT_EQ(fake().address_answer("studio.local.", kAdd, 2, 0, "studio.local.", 2, kIPv4), 0);
    EXPECT_EQ(wait_for_events(1).size(), 1u);
}

}  // namespace
