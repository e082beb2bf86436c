#include "bonjour_service.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <mutex>
#include <string>
#include <vector>

#include "zeroconf_test_support.h"

namespace {

using namespace zeroconf_test;

class BonjourServiceTest : public fake_test {
protected:
    void TearDown() override {
        service.reset();
        client.reset();
        EXPECT_TRUE(eventually([] { return fake().open_count(nullptr) == 0; }));
        fake_test::TearDown();
    }

    void publish(const std::string& name, std::vector<std::string> txt = {"master:1"}) {
        service =
            client->create_service(name, "_http._tcp", 8080, {"_ravenna"}, txt, [this](int state) {
                std::lock_guard<std::mutex> hold(mutex);
                states.push_back(state);
            });
    }

    std::vector<int> seen() {
        std::lock_guard<std::mutex> hold(mutex);
        return states;
    }

    boost::shared_ptr<zeroconf::client> client = zeroconf::client::create(-1);
    boost::shared_ptr<zeroconf::service> service;
    std::mutex mutex;
    std::vector<int> states;
};

TEST_F(BonjourServiceTest, RegistersWithoutAutomaticRenaming) {
    publish("_velmor_studio");
    ASSERT_TRUE(service);
    EXPECT_EQ(fake().last("DNSServiceRegister"),
              "flags=8 interface=0 name=_velmor_studio regtype=_http._tcp,_ravenna domain=(null) "
              "host=(null) port=8080 txt=086d61737465723a31");
    ASSERT_EQ(
        fake().register_answer("_velmor_studio", 0, 0, "_velmor_studio", "_http._tcp.", "local."),
        0);
    ASSERT_TRUE(eventually([&] { return seen().size() == 1; }));
    EXPECT_EQ(seen()[0], zeroconf::service::registered);
    EXPECT_EQ(log.text(), "");
}

TEST_F(BonjourServiceTest, EveryTypeAndSubtypeIsJoined) {
    service = client->create_service("a", "_http._tcp", 80, {"_ravenna", "_extra"}, {}, [](int) {});
    ASSERT_TRUE(service);
    EXPECT_EQ(fake().last("DNSServiceRegister"),
              "flags=8 interface=0 name=a regtype=_http._tcp,_ravenna,_extra domain=(null) "
              "host=(null) port=80 txt=");
}

TEST_F(BonjourServiceTest, NameConflictIsReportedNotRenamed) {
    publish("_velmor_studio");
    ASSERT_EQ(fake().register_answer("_velmor_studio", 0, -65548, "_velmor_studio", "_http._tcp.",
                                     "local."),
              0);
    ASSERT_TRUE(eventually([&] { return seen().size() == 1; }));
    EXPECT_EQ(seen()[0], zeroconf::service::name_collision);
    EXPECT_TRUE(
        log.contains(stdout_capture::line(3, "bonjour_service failed name collision (-65548)\n")));
    EXPECT_EQ(fake().calls("DNSServiceRegister"), 1);
}

TEST_F(BonjourServiceTest, OtherFailureIsReported) {
    publish("_velmor_studio");
    ASSERT_EQ(fake().register_answer("_velmor_studio", 0, -65537, "_velmor_studio", "_http._tcp.",
                                     "local."),
              0);
    ASSERT_TRUE(eventually([&] { return seen().size() == 1; }));
    EXPECT_EQ(seen()[0], zeroconf::service::failed);
    EXPECT_TRUE(log.contains(stdout_capture::line(3, "bonjour_service failed (-65537)\n")));
}

TEST_F(BonjourServiceTest, NameOf63BytesIsQuiet) {
    publish(std::string(63, 'n'));
    ASSERT_TRUE(service);
    EXPECT_EQ(log.text(), "");
}

TEST_F(BonjourServiceTest, NameOf64BytesIsLoggedAndStillRegistered) {
    std::string name(64, 'n');
    publish(name);
    ASSERT_TRUE(service);
    EXPECT_EQ(fake().calls("DNSServiceRegister"), 1);
    EXPECT_TRUE(log.contains(
        stdout_capture::line(3, "service name \"" + name + "\" is too long(64) should be < 64\n")));
}

TEST_F(BonjourServiceTest, RefusedRegistrationGivesNoService) {
    fake().fail("DNSServiceRegister", -65548);
    publish("_velmor_studio");
    EXPECT_FALSE(service);
    EXPECT_TRUE(log.contains(stdout_capture::line(
        3,
        "[0] _velmor_studio  _http._tcp; runtime error Could not register service "
        "\"_velmor_studio\" (-65548).\n")));
}

TEST_F(BonjourServiceTest, OverlongTxtEntryPublishesAnEmptyRecord) {
    publish("a", {"master:1", std::string(128, 'x')});
    ASSERT_TRUE(service);
    EXPECT_NE(fake().last("DNSServiceRegister").find(" port=8080 txt="), std::string::npos);
    EXPECT_EQ(
        fake().last("DNSServiceRegister").substr(fake().last("DNSServiceRegister").size() - 4),
        "txt=");
}

TEST_F(BonjourServiceTest, EmptyStatusCallbackIsCaughtAndLogged) {
    service = client->create_service("a", "_http._tcp", 80, {}, {}, {});
    ASSERT_TRUE(service);
    ASSERT_EQ(fake().register_answer("a", 0, 0, "a", "_http._tcp.", "local."), 0);
    ASSERT_TRUE(log.wait_for(stdout_capture::line(3, "exception in DNSServiceProcessResult\n")));
}

TEST_F(BonjourServiceTest, DroppingTheServiceWithdrawsIt) {
    publish("_velmor_studio");
    ASSERT_EQ(fake().open_count("DNSServiceRegister"), 1);
    service.reset();
    EXPECT_TRUE(eventually([] { return fake().open_count("DNSServiceRegister") == 0; }));
}

}  // namespace
