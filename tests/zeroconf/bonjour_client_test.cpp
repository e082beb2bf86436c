#include "bonjour_client.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <mutex>
#include <string>
#include <vector>

#include "zeroconf_test_support.h"

namespace {

using namespace zeroconf_test;

constexpr std::uint32_t kAdd = 2;

int thread_count() {
    int count = 0;
    if (DIR* tasks = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(tasks))
            if (entry->d_name[0] != '.')
                ++count;
        closedir(tasks);
    }
    return count;
}

/// \brief Records host-name answers.
class recording_hostname_listener : public zeroconf::hostname_listener {
public:
    void add(std::uint32_t, const char* host_name, const char*) override {
        std::lock_guard<std::mutex> hold(mutex_);
        hosts_.push_back(host_name);
    }
    void remove(std::uint32_t, const char*) override {}
    std::vector<std::string> hosts() const {
        std::lock_guard<std::mutex> hold(mutex_);
        return hosts_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> hosts_;
};

class BonjourClientTest : public fake_test {
protected:
    void TearDown() override {
        EXPECT_TRUE(eventually([] { return fake().open_count(nullptr) == 0; }));
        fake_test::TearDown();
    }

    // Opens count host-name queries "h0", "h1", ... on one client.
    std::vector<boost::shared_ptr<zeroconf::hostname_browser>> open_queries(
        const boost::shared_ptr<zeroconf::client>& client, int count) {
        std::vector<boost::shared_ptr<zeroconf::hostname_browser>> queries;
        for (int i = 0; i < count; ++i) {
            queries.push_back(client->create_hostname_browser("h" + std::to_string(i), hosts));
            EXPECT_TRUE(queries.back());
        }
        return queries;
    }

    boost::shared_ptr<recording_hostname_listener> hosts =
        boost::make_shared<recording_hostname_listener>();
};

TEST_F(BonjourClientTest, ClientDestroyedInsideACallbackDoesNotWaitForItself) {
    auto listener = boost::make_shared<recording_listener>();
    std::mutex held_mutex;
    boost::shared_ptr<zeroconf::client> client = zeroconf::client::create(-1);
    boost::shared_ptr<zeroconf::browser> browser =
        client->create_browser("", "_http._tcp", "", listener, false);
    ASSERT_TRUE(browser);
    listener->on_add = [&] {
        std::lock_guard<std::mutex> hold(held_mutex);
        browser.reset();
        client.reset();
    };

    ASSERT_EQ(fake().browse_event("_http._tcp", kAdd, 1, 0, "a", "_http._tcp.", "local."), 0);
    ASSERT_TRUE(fake().wait_open("DNSServiceResolve", "a", timeout_ms));
    ASSERT_EQ(fake().resolve_answer("a", 0, 1, 0, "a._http._tcp.local.", "a.local.", htons(80), 0,
                                    nullptr),
              0);
    ASSERT_TRUE(fake().wait_open("DNSServiceQueryRecord", "a.local.", timeout_ms));
    const unsigned char address[4] = {10, 0, 0, 1};
    ASSERT_EQ(fake().query_answer("a.local.", kAdd, 1, 0, "a.local.", 1, 1, 4, address, 0), 0);

    ASSERT_TRUE(log.wait_for(stdout_capture::line(6, "destroyed from poll_thread_\n")));
    std::lock_guard<std::mutex> hold(held_mutex);
    EXPECT_FALSE(client);
    EXPECT_EQ(listener->events().size(), 1u);
}

TEST_F(BonjourClientTest, ClientDestroyedElsewhereStopsItsThread) {
    int before = thread_count();
    auto client = zeroconf::client::create(0);
    EXPECT_EQ(thread_count(), before + 1);
    client.reset();
    EXPECT_EQ(thread_count(), before);
    EXPECT_FALSE(log.contains("destroyed from poll_thread_"));
}

TEST_F(BonjourClientTest, AllOf512OperationsAreServed) {
    int before = thread_count();
    auto client = zeroconf::client::create(0);
    auto queries = open_queries(client, 512);
    const unsigned char address[4] = {10, 0, 0, 1};
    ASSERT_EQ(fake().address_answer("h511", kAdd, 1, 0, "h511", 2, address), 0);
    ASSERT_TRUE(eventually([&] { return hosts->hosts().size() == 1; }));
    EXPECT_EQ(hosts->hosts()[0], "h511");
    EXPECT_FALSE(log.contains("fdset too small"));
    EXPECT_EQ(thread_count(), before + 1);
}

TEST_F(BonjourClientTest, The513thOperationEndsThePollThread) {
    int before = thread_count();
    auto client = zeroconf::client::create(0);
    auto queries = open_queries(client, 513);
    ASSERT_TRUE(log.wait_for(stdout_capture::line(3, "fdset too small\n")));
    ASSERT_TRUE(eventually([&] { return thread_count() == before; }));
    EXPECT_EQ(log.count("fdset too small"), 1u);
}

TEST_F(BonjourClientTest, OperationWithoutSocketIsLoggedEveryCycleAndNeverServed) {
    fake().invalid_sockets(1);
    auto client = zeroconf::client::create(0);
    auto queries = open_queries(client, 1);
    const unsigned char address[4] = {10, 0, 0, 1};
    ASSERT_EQ(fake().address_answer("h0", kAdd, 1, 0, "h0", 2, address), 0);
    ASSERT_TRUE(log.wait_for("Invalid file descriptor or sd_ref_; fd = -1; sd_ref_ = 0x", 3));
    EXPECT_EQ(fake().calls("DNSServiceProcessResult"), 0);
    EXPECT_TRUE(hosts->hosts().empty());

    fake().invalid_sockets(0);
    ASSERT_TRUE(eventually([&] { return hosts->hosts().size() == 1; }));
}

TEST_F(BonjourClientTest, FactoryLineNamesTheClientsInterface) {
    fake().fail("DNSServiceGetAddrInfo", -65537);
    auto any = zeroconf::client::create(-1);
    EXPECT_FALSE(any->create_hostname_browser("studio.local.", hosts));
    auto fourth = zeroconf::client::create(4);
    EXPECT_FALSE(fourth->create_hostname_browser("studio.local.", hosts));
    EXPECT_TRUE(log.contains(stdout_capture::line(
        3, "[0] studio.local.  ; runtime error DNSServiceGetAddrInfo() failed (-65537).\n")));
    EXPECT_TRUE(log.contains(stdout_capture::line(
        3, "[4] studio.local.  ; runtime error DNSServiceGetAddrInfo() failed (-65537).\n")));
}

}  // namespace
