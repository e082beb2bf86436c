#include "Agent/BrowserListener.h"

#include "AgentFixture.h"

namespace {

using vlm::test::AgentFixture;
using vlm::test::LogCapture;
using Texts = std::vector<std::string>;

class Attachment : public AgentFixture {
protected:
    void build(const std::string& configText, const std::string& localAddress = "10.0.0.1") {
        agent = makeAgent(configText);
        listener_ = std::make_unique<vlm::Agent::BrowserListener>(*agent, localAddress);
    }
    void add(const char* name, const char* address, std::uint16_t port, Texts txt = {}) {
        listener_->add(2, name, "_http._tcp.", "host.local.", address, port, txt);
    }
    void remove(const char* name) { listener_->remove(2, name, "_http._tcp."); }

    std::unique_ptr<vlm::Agent> agent;
    std::unique_ptr<vlm::Agent::BrowserListener> listener_;
};

TEST_F(Attachment, FirstServerIsKeptAndALaterMasterIgnored) {
    build(R"({"mode": 2})");
    LogCapture log;
    add("_velmor_a", "10.0.0.2", 8080, {"path=/"});
    add("_velmor_b", "10.0.0.3", 8080, {"master:1"});
    EXPECT_EQ(agent->attachedServer, "10.0.0.2:8080");
    EXPECT_EQ(agent->attachedName, "_velmor_a");
    EXPECT_EQ(agent->attachedHost, "host.local.");
    EXPECT_EQ(agent->attachedMode, vlm::kModeHybrid);
    EXPECT_EQ(log.lines(),
              (Texts{"Attached to 10.0.0.2:8080\n",
                     "Ignored VELMOR at 10.0.0.3:8080 because it is not the master and "
                     "we are already attached\n"}));
    EXPECT_EQ(listener.calls(), Texts{"attached 10.0.0.2:8080"});

    remove("_velmor_a");
    EXPECT_EQ(agent->attachedServer, "10.0.0.3:8080");
    EXPECT_EQ(agent->attachedMode, vlm::kModeMaster);
    EXPECT_EQ(listener.calls(), (Texts{"attached 10.0.0.2:8080", "attached 10.0.0.3:8080"}));
}

TEST_F(Attachment, LastMasterInNameOrderWinsOnRemoval) {
    build(R"({"mode": 4})");
    add("_velmor_z", "10.0.0.9", 80);
    add("_velmor_c", "10.0.0.4", 80, {"master:yes"});
    add("_velmor_a", "10.0.0.2", 80, {"x=1", "master:"});
    add("_velmor_b", "10.0.0.3", 80);
    remove("_velmor_z");
    EXPECT_EQ(listener.calls(),
              (Texts{"attached 10.0.0.9:80", "attached 10.0.0.2:80", "attached 10.0.0.4:80"}));
    EXPECT_EQ(agent->attachedName, "_velmor_c");
}

TEST_F(Attachment, LastServerGoneDetaches) {
    build("{}");
    add("_velmor_a", "10.0.0.2", 80);
    remove("_velmor_b");  // never attached: nothing happens
    LogCapture log;
    remove("_velmor_a");
    EXPECT_EQ(log.lines(), Texts{"Detached from 10.0.0.2:80\n"});
    EXPECT_EQ(listener.calls(), (Texts{"attached 10.0.0.2:80", "detached 10.0.0.2:80"}));
    EXPECT_TRUE(agent->attachedServer.empty());
    EXPECT_TRUE(agent->attachedName.empty());
    EXPECT_EQ(agent->attachedMode, 0);
    // A new announcement attaches again.
    add("_velmor_a", "10.0.0.7", 80);
    EXPECT_EQ(agent->attachedServer, "10.0.0.7:80");
}

TEST_F(Attachment, MasterAgentOnlyTakesItsOwnServer) {
    build(R"({"mode": 1})", "10.0.0.1");
    LogCapture log;
    add("_velmor_other", "10.0.0.2", 8080, {"master:1"});
    EXPECT_TRUE(agent->attachedServer.empty());
    add("_velmor_own", "10.0.0.1", 8080, {"master:1"});
    EXPECT_EQ(agent->attachedServer, "10.0.0.1:8080");
    EXPECT_EQ(log.lines(), (Texts{"Ignored VELMOR at 10.0.0.2:8080 because we are the master\n",
                                  "Attached to 10.0.0.1:8080\n"}));
    // On removal the address rule does not apply: the foreign one is taken.
    remove("_velmor_own");
    EXPECT_EQ(agent->attachedServer, "10.0.0.2:8080");
}

TEST_F(Attachment, OnlyNamesStartingWithThePrefixCount) {
    build("{}");
    add("x_velmor", "10.0.0.2", 80);
    add("_VELMOR_a", "10.0.0.2", 80);
    add("_velmo", "10.0.0.2", 80);
    EXPECT_TRUE(listener.calls().empty());
    add("_velmor", "10.0.0.3", 80);
    EXPECT_EQ(listener.calls(), Texts{"attached 10.0.0.3:80"});
    remove("x_velmor");
    EXPECT_EQ(agent->attachedServer, "10.0.0.3:80");
}

TEST_F(Attachment, SecondAddUnderAKnownNameKeepsTheFirstRecord) {
    build("{}");
    add("_velmor_a", "10.0.0.2", 80);
    add("_velmor_b", "10.0.0.3", 80);
    add("_velmor_b", "10.0.0.4", 81, {"master:1"});
    remove("_velmor_a");
    EXPECT_EQ(agent->attachedServer, "10.0.0.3:80");
    EXPECT_EQ(agent->attachedMode, vlm::kModeHybrid);
}

TEST_F(Attachment, AttachedServerAlwaysNamesAKnownServerUnderChurn) {
    build("{}");
    const char* names[] = {"_velmor_a", "_velmor_b", "_velmor_c", "_velmor_d"};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                std::string address = "10.0.1." + std::to_string(t);
                if (i % 2 == 0)
                    add(names[t], address.c_str(), 80, {(i % 4 == 0) ? "master:1" : "a=b"});
                else
                    remove(names[t]);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    // Every server was removed last: nothing may remain attached.
    EXPECT_TRUE(agent->attachedEndpoint().empty());
}

}  // namespace
