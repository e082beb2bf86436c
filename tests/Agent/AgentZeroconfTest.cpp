// Attachment through the whole zeroconf library (poll thread, browse, resolve, address query)
// over the fake DNS-SD library: only what needs the stack.

#include <arpa/inet.h>
#include <cstdio>

#include "AgentTestSupport.h"
#include "fake_dnssd_control.h"

namespace {

using Texts = std::vector<std::string>;

constexpr const char* kRegtype = "_http._tcp,_ravenna";
constexpr int kWaitMs = 5000;

constexpr auto fake = &fake_dnssd::control::get;

struct Server {
    std::string name, address, txt;  // txt in wire form
    std::string endpoint() const { return address + ":8080"; }
};

class AgentZeroconf : public vlm::test::AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        fake().reset();
        agent = makeAgent(R"({"mode": 2})");
        agent->startBrowsing();
        ASSERT_TRUE(fake().wait_open("DNSServiceBrowse", kRegtype, kWaitMs));
    }
    void TearDown() override {
        ASSERT_TRUE(fake().wait_idle(kWaitMs));
        agent.reset();
        fake().reset();
    }
    void browse(const Server& s, std::uint32_t flags = 2) {
        ASSERT_EQ(
            fake().browse_event(kRegtype, flags, 2, 0, s.name.c_str(), "_http._tcp.", "local."), 0);
    }
    // Not strict: the library may have stopped listening, and the answers go nowhere.
    void resolve(const Server& s, bool strict = true) {
        const std::string host = s.name + ".local.", fullname = s.name + "._http._tcp.local.";
        in_addr address{};
        inet_pton(AF_INET, s.address.c_str(), &address);
        const int wait = strict ? kWaitMs : 500;
        const bool answered =
            fake().wait_open("DNSServiceResolve", s.name.c_str(), wait) &&
            fake().resolve_answer(s.name.c_str(), 2, 2, 0, fullname.c_str(), host.c_str(),
                                  htons(8080), static_cast<std::uint16_t>(s.txt.size()),
                                  reinterpret_cast<const unsigned char*>(s.txt.data())) == 0 &&
            fake().wait_open("DNSServiceQueryRecord", host.c_str(), wait) &&
            fake().query_answer(host.c_str(), 2, 2, 0, host.c_str(), 1, 1, 4, &address, 120) == 0;
        ASSERT_TRUE(answered || !strict) << s.name;
    }
    void withdraw(const Server& s) {
        browse(s, 0);
        ASSERT_TRUE(fake().wait_idle(kWaitMs));
    }
    std::unique_ptr<vlm::Agent> agent;
};

// Fault: the agent attaches to a server that has already left, because its resolve began
// before the withdrawal.
TEST_F(AgentZeroconf, ServerWithdrawnDuringItsResolveIsNeverAttached) {
    const Server a{"_velmor_a", "10.0.0.2", ""};
    browse(a);
    ASSERT_TRUE(fake().wait_open("DNSServiceResolve", "_velmor_a", kWaitMs));
    withdraw(a);
    resolve(a, false);
    ASSERT_TRUE(fake().wait_idle(kWaitMs));
    EXPECT_EQ(agent->attachedEndpoint(), "");
    EXPECT_EQ(listener.calls(), Texts{});
}

// Faults: lost or doubled answers with 200 resolves open at once on the poll thread; a wrong
// take-over order when the attached one goes; a TXT record read wrongly off the wire (an
// entry claiming more bytes than the record holds, or a prefix in other case, made a master; a
// "master:" entry after another missed); an attachment left after every server went.
TEST_F(AgentZeroconf, FloodOfServersKeepsOneAttachment) {
    std::vector<Server> servers;
    const std::string txt[] = {"", "", std::string("\x01x\x20master:1", 11),
                               "\x08MASTER:1\x06master", "\x09txtvers=1\x0amaster:yes"};
    for (int i = 0; i < 200; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "_velmor_%03d", i);
        const std::string record = i < 5 ? txt[i] : i % 50 == 7 ? "\x08master:1" : "";
        servers.push_back({name, "10.1.0." + std::to_string(1 + i), record});
    }
    vlm::test::LogCapture log;
    for (const Server& s : servers)
        browse(s);
    for (const Server& s : servers)
        resolve(s);
    ASSERT_TRUE(fake().wait_idle(kWaitMs));
    EXPECT_EQ(agent->attachedEndpoint(), servers[0].endpoint());
    int ignored = 0;
    for (const std::string& line : log.lines())
        ignored += line.find("because it is not the master") != std::string::npos;
    EXPECT_EQ(ignored, 199);
    withdraw(servers[0]);
    Texts expected{"attached " + servers[0].endpoint()};
    for (int i : {1, 4, 7, 57, 107, 157})
        expected.push_back("attached " + servers[i].endpoint());
    EXPECT_EQ(listener.calls(), expected);
    for (int i = 199; i >= 1; --i)
        withdraw(servers[i]);
    EXPECT_EQ(agent->attachedEndpoint(), "");
    EXPECT_EQ(listener.calls().back(), "detached " + servers[1].endpoint());
}

}  // namespace
