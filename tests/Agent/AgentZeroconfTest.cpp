// The agent's attachment driven through the whole zeroconf library (client, poll thread,
// browse, resolve, address query) over the fake DNS-SD library, as the tray's start opens it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <future>

#include "AgentFixture.h"
#include "fake_dnssd_control.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::AgentFixture;
using vlm::test::LogCapture;
using Texts = std::vector<std::string>;

constexpr const char* kRegtype = "_http._tcp,_ravenna";
constexpr const char* kEventType = "_http._tcp.";
constexpr std::uint32_t kAdd = 2;
constexpr std::uint32_t kInterface = 2;
constexpr int kWaitMs = 5000;
// The address every test agent takes as its own.
constexpr const char* kOwnAddress = "10.0.0.1";

const fake_dnssd::control& fake() {
    return fake_dnssd::control::get();
}

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout = 5s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// A TXT record in wire form from its entries.
std::string txtRecord(const Texts& entries) {
    std::string record;
    for (const std::string& entry : entries)
        record += static_cast<char>(entry.size()) + entry;
    return record;
}

struct Server {
    std::string name;
    std::array<unsigned char, 4> address;
    std::uint16_t port;
    std::string txt;  // wire form
    std::string host() const { return name + ".local."; }
    std::string endpoint() const {
        char text[32];
        std::snprintf(text, sizeof text, "%d.%d.%d.%d:%u", address[0], address[1], address[2],
                      address[3], port);
        return text;
    }
};

Server server(const std::string& name, unsigned char last, const Texts& txt = {},
              std::uint16_t port = 8080) {
    return {name, {10, 0, 0, last}, port, txtRecord(txt)};
}

class AgentZeroconf : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        fake().reset();
    }
    void TearDown() override {
        if (agent) {
            ASSERT_TRUE(fake().wait_idle(kWaitMs));
            // Every announcement of the test has ended its chain; the browse goes last.
            EXPECT_EQ(fake().open_count("DNSServiceResolve"), 0);
            EXPECT_EQ(fake().open_count("DNSServiceQueryRecord"), 0);
            agent->browser.reset();
            EXPECT_TRUE(eventually([] { return fake().open_count(nullptr) == 0; }));
            agent.reset();
        }
        fake().reset();
    }

    void open(int mode) {
        agent = makeAgent(R"({"mode": )" + std::to_string(mode) + R"(, "server": {"ip": ")" +
                          kOwnAddress + R"("}})");
        agent->startBrowsing();
        ASSERT_TRUE(agent->browser);
        ASSERT_TRUE(fake().wait_open("DNSServiceBrowse", kRegtype, kWaitMs));
    }

    // The browse event, then the resolve and address answers, as the daemon gives them.
    void browseAdd(const Server& s) {
        ASSERT_EQ(fake().browse_event(kRegtype, kAdd, kInterface, 0, s.name.c_str(), kEventType,
                                      "local."),
                  0);
    }
    void resolve(const Server& s) {
        ASSERT_TRUE(fake().wait_open("DNSServiceResolve", s.name.c_str(), kWaitMs)) << s.name;
        const std::string fullname = s.name + "._http._tcp.local.";
        ASSERT_EQ(fake().resolve_answer(s.name.c_str(), kAdd, kInterface, 0, fullname.c_str(),
                                        s.host().c_str(), htons(s.port),
                                        static_cast<std::uint16_t>(s.txt.size()),
                                        reinterpret_cast<const unsigned char*>(s.txt.data())),
                  0);
        ASSERT_TRUE(fake().wait_open("DNSServiceQueryRecord", s.host().c_str(), kWaitMs));
        ASSERT_EQ(fake().query_answer(s.host().c_str(), kAdd, kInterface, 0, s.host().c_str(), 1, 1,
                                      4, s.address.data(), 120),
                  0);
    }
    void announce(const Server& s) {
        browseAdd(s);
        resolve(s);
        ASSERT_TRUE(fake().wait_idle(kWaitMs));
    }
    void withdraw(const std::string& name) {
        ASSERT_EQ(
            fake().browse_event(kRegtype, 0, kInterface, 0, name.c_str(), kEventType, "local."), 0);
        ASSERT_TRUE(fake().wait_idle(kWaitMs));
    }

    struct Attachment {
        std::string name, server;
        std::int32_t mode;
    };
    Attachment attachment() {
        std::lock_guard<std::mutex> lock(agent->mutex);
        return {agent->attachedName, agent->attachedServer, agent->attachedMode};
    }

    std::unique_ptr<vlm::Agent> agent;
};

TEST_F(AgentZeroconf, SlaveKeepsTheFirstServerThenTakesTheMasterWhenItGoes) {
    open(vlm::kModeSlave);
    LogCapture log;
    Server a = server("_velmor_a", 2, {"path=/"});
    Server b = server("_velmor_b", 3, {"master:1"});
    announce(a);
    announce(b);
    EXPECT_EQ(attachment().server, a.endpoint());
    EXPECT_EQ(listener.calls(), Texts{"attached " + a.endpoint()});
    EXPECT_EQ(log.count("Ignored VELMOR at " + b.endpoint() +
                        " because it is not the master and we are already attached\n"),
              1);

    withdraw("_velmor_a");
    EXPECT_EQ(attachment().server, b.endpoint());
    EXPECT_EQ(attachment().mode, vlm::kModeMaster);
    EXPECT_EQ(listener.calls(), (Texts{"attached " + a.endpoint(), "attached " + b.endpoint()}));

    withdraw("_velmor_b");
    EXPECT_EQ(attachment().server, "");
    EXPECT_EQ(listener.calls().back(), "detached " + b.endpoint());
    EXPECT_EQ(log.count("Detached from " + b.endpoint() + "\n"), 1);
}

TEST_F(AgentZeroconf, LastMasterInNameOrderTakesOverWhenTheAttachedOneGoes) {
    open(vlm::kModeHybrid);
    Server first = server("_velmor_0", 9);
    Server a = server("_velmor_a", 2, {"master:1"});
    Server b = server("_velmor_b", 3);
    Server c = server("_velmor_c", 4, {"txtvers=1", "master:yes"});
    for (const Server& s : {first, c, b, a})
        announce(s);
    withdraw("_velmor_0");
    EXPECT_EQ(listener.calls(), (Texts{"attached " + first.endpoint(), "attached " + a.endpoint(),
                                       "attached " + c.endpoint()}));
    EXPECT_EQ(attachment().name, "_velmor_c");
}

TEST_F(AgentZeroconf, SecondAnnouncementUnderAKnownNameKeepsTheFirstRecord) {
    open(vlm::kModeSlave);
    Server first = server("_velmor_0", 9);
    Server a = server("_velmor_a", 2);
    Server moved = server("_velmor_a", 7, {}, 9090);
    announce(first);
    announce(a);
    announce(moved);
    withdraw("_velmor_0");
    EXPECT_EQ(attachment().server, a.endpoint());
    EXPECT_EQ(listener.calls().back(), "attached " + a.endpoint());
}

TEST_F(AgentZeroconf, ServicesNotNamedAsEngineServersAreIgnored) {
    open(vlm::kModeSlave);
    LogCapture log;
    announce(server("x_velmor", 2, {"master:1"}));
    announce(server("_VELMOR_caps", 3));
    withdraw("x_velmor");
    EXPECT_EQ(attachment().server, "");
    EXPECT_TRUE(listener.calls().empty());
    EXPECT_EQ(log.lines(), Texts{});
}

TEST_F(AgentZeroconf, MasterAgentAttachesOnlyToItsOwnServer) {
    open(vlm::kModeMaster);
    LogCapture log;
    Server foreign = server("_velmor_foreign", 2, {"master:1"});
    Server own = server("_velmor_own", 1, {"master:1"});
    announce(foreign);
    EXPECT_EQ(attachment().server, "");
    EXPECT_EQ(log.count("Ignored VELMOR at " + foreign.endpoint() + " because we are the master\n"),
              1);
    announce(own);
    EXPECT_EQ(attachment().server, own.endpoint());
    EXPECT_EQ(listener.calls(), Texts{"attached " + own.endpoint()});
}

TEST_F(AgentZeroconf, MalformedTxtDoesNotMakeAMaster) {
    open(vlm::kModeSlave);
    LogCapture log;
    Server first = server("_velmor_0", 9);
    Server broken = server("_velmor_a", 2);
    // The second entry claims more bytes than the record holds.
    broken.txt = std::string("\x01x", 2) + "\x20master:1";
    Server caps = server("_velmor_b", 3, {"MASTER:1", "master", ""});
    Server plain = server("_velmor_c", 4);
    for (const Server& s : {first, broken, caps, plain})
        announce(s);
    withdraw("_velmor_0");
    // No master among them: the first in name order stays.
    EXPECT_EQ(attachment().server, broken.endpoint());
    EXPECT_EQ(attachment().mode, vlm::kModeHybrid);
    EXPECT_EQ(listener.calls().size(), 2u);
}

TEST_F(AgentZeroconf, ServerWithdrawnWhileResolvingIsStillAttachedWhenTheAnswerComes) {
    open(vlm::kModeSlave);
    Server a = server("_velmor_a", 2);
    browseAdd(a);
    ASSERT_TRUE(fake().wait_open("DNSServiceResolve", "_velmor_a", kWaitMs));
    withdraw("_velmor_a");
    EXPECT_EQ(attachment().server, "");
    // The library reports a resolve under way whatever came after it: the agent then holds a
    // server that is no longer announced, and only a later withdrawal detaches it.
    resolve(a);
    ASSERT_TRUE(fake().wait_idle(kWaitMs));
    EXPECT_EQ(attachment().server, a.endpoint());
    withdraw("_velmor_a");
    EXPECT_EQ(attachment().server, "");
    EXPECT_EQ(listener.calls(), (Texts{"attached " + a.endpoint(), "detached " + a.endpoint()}));
}

TEST_F(AgentZeroconf, AnnouncedAndWithdrawnInQuickSuccessionStaysConsistent) {
    open(vlm::kModeHybrid);
    std::vector<std::string> endpoints;
    for (int round = 0; round < 20; ++round) {
        Server a = server("_velmor_a", static_cast<unsigned char>(2 + round));
        endpoints.push_back(a.endpoint());
        browseAdd(a);
        resolve(a);
        // No wait: the withdrawal races the address answer on another DNS-SD operation, and
        // the poll thread may deliver either first.
        ASSERT_EQ(
            fake().browse_event(kRegtype, 0, kInterface, 0, "_velmor_a", kEventType, "local."), 0);
    }
    ASSERT_TRUE(fake().wait_idle(kWaitMs));
    // Whatever the order, every detach names the server attached just before it, and an
    // attachment left over names one of the announced servers, which one more withdrawal ends.
    auto calls = listener.calls();
    std::string attached;
    for (const std::string& call : calls) {
        if (call.rfind("attached ", 0) == 0) {
            EXPECT_EQ(attached, "") << call;
            attached = call.substr(9);
            EXPECT_NE(std::find(endpoints.begin(), endpoints.end(), attached), endpoints.end());
        } else {
            EXPECT_EQ(call, "detached " + attached);
            attached.clear();
        }
    }
    EXPECT_EQ(attachment().server, attached);
    if (!attached.empty()) {
        EXPECT_EQ(attachment().name, "_velmor_a");
        withdraw("_velmor_a");
        EXPECT_EQ(listener.calls().back(), "detached " + attached);
    }
    EXPECT_EQ(attachment().server, "");
}

TEST_F(AgentZeroconf, FloodOfAnnouncementsKeepsOneAttachment) {
    open(vlm::kModeSlave);
    constexpr int kServers = 200;
    std::vector<Server> servers;
    for (int i = 0; i < kServers; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "_velmor_%03d", i);
        servers.push_back(
            {name,
             {10, 1, static_cast<unsigned char>(i / 250), static_cast<unsigned char>(1 + i % 250)},
             8080,
             txtRecord(i % 50 == 7 ? Texts{"master:1"} : Texts{})});
    }
    LogCapture log;
    // Every browse event first, so that 200 resolves are open at once on the poll thread.
    for (const Server& s : servers)
        browseAdd(s);
    for (const Server& s : servers)
        resolve(s);
    ASSERT_TRUE(fake().wait_idle(kWaitMs));
    // The first address answered wins; the others are known and ignored.
    EXPECT_EQ(attachment().server, servers[0].endpoint());
    EXPECT_EQ(listener.calls().size(), 1u);
    int ignored = 0;
    for (const std::string& line : log.lines())
        ignored += line.find("because it is not the master and we are already attached") !=
                   std::string::npos;
    EXPECT_EQ(ignored, kServers - 1);

    // Masters are 007, 057, 107, 157: the first left, then every master after it, in turn.
    withdraw(servers[0].name);
    EXPECT_EQ(
        listener.calls(),
        (Texts{"attached " + servers[0].endpoint(), "attached " + servers[1].endpoint(),
               "attached " + servers[7].endpoint(), "attached " + servers[57].endpoint(),
               "attached " + servers[107].endpoint(), "attached " + servers[157].endpoint()}));
    for (int i = kServers - 1; i >= 1; --i) {
        withdraw(servers[i].name);
        if (i > 1) {
            EXPECT_FALSE(attachment().server.empty()) << i;
        }
    }
    EXPECT_EQ(attachment().server, "");
    EXPECT_EQ(listener.calls().back(), "detached " + servers[1].endpoint());
}

/// \brief A loopback HTTP server that answers each request with one canned reply, or (with an
/// empty reply) reads the request and never answers until it is stopped.
class LoopbackServer {
public:
    explicit LoopbackServer(std::string reply) : reply_(std::move(reply)) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 8);
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        if (::pipe(stop_) != 0)
            throw std::runtime_error("no pipe");
        thread_ = std::thread([this] { serve(); });
    }
    ~LoopbackServer() { stop(); }

    std::uint16_t port() const { return port_; }
    int requests() const { return requests_; }
    /// Ends every connection and the server.
    void stop() {
        if (!thread_.joinable())
            return;
        (void)!::write(stop_[1], "x", 1);
        thread_.join();
        ::close(listener_);
        ::close(stop_[0]);
        ::close(stop_[1]);
    }

private:
    // True when the stop pipe became readable first.
    bool stopped(int fd) {
        pollfd wait[2] = {{stop_[0], POLLIN, 0}, {fd, POLLIN, 0}};
        while (::poll(wait, fd < 0 ? 1 : 2, -1) <= 0) {
        }
        return wait[0].revents != 0;
    }

    void serve() {
        for (;;) {
            if (stopped(listener_))
                return;
            int connection = ::accept(listener_, nullptr, nullptr);
            if (connection < 0)
                return;
            std::string request;
            char buffer[4096];
            while (request.find('}') == std::string::npos) {
                ssize_t n = ::read(connection, buffer, sizeof buffer);
                if (n <= 0)
                    break;
                request.append(buffer, static_cast<std::size_t>(n));
            }
            ++requests_;
            if (reply_.empty()) {
                // Silent: the connection stays open, unanswered, until the server stops.
                stopped(-1);
                ::close(connection);
                return;
            }
            (void)!::write(connection, reply_.data(), reply_.size());
            ::close(connection);
        }
    }

    std::string reply_;
    int listener_ = -1;
    int stop_[2] = {-1, -1};
    std::uint16_t port_ = 0;
    std::atomic<int> requests_{0};
    std::thread thread_;
};

std::string reply(const std::string& status, const std::string& body) {
    return "HTTP/1.1 " + status +
           "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

Server loopbackServer(const std::string& name, std::uint16_t port) {
    return {name, {127, 0, 0, 1}, port, {}};
}

TEST_F(AgentZeroconf, GetAnswersThatAreNotJsonOrNot200GiveNull) {
    open(vlm::kModeSlave);
    LoopbackServer good(reply("200 OK", R"({"Config": {"Plugins": []}})"));
    announce(loopbackServer("_velmor_a", good.port()));
    auto document = agent->queryServer("$");
    ASSERT_NE(document, nullptr);
    EXPECT_TRUE((*document)["Config"]["Plugins"].IsArray());
    withdraw("_velmor_a");

    int index = 0;
    for (const std::string& answer :
         {reply("200 OK", "<html>busy</html>"), reply("200 OK", ""),
          reply("500 Internal Server Error", "{}"), reply("401 Unauthorized", "{}"),
          std::string("garbage\r\n\r\n")}) {
        LoopbackServer bad(answer);
        const std::string name = "_velmor_bad" + std::to_string(index++);
        announce(loopbackServer(name, bad.port()));
        EXPECT_EQ(agent->queryServer("$"), nullptr) << answer;
        EXPECT_EQ(bad.requests(), 1) << answer;
        withdraw(name);
    }
    EXPECT_EQ(attachment().server, "");
}

TEST_F(AgentZeroconf, AttachedServerThatStopsAnsweringBlocksTheRequestUntilItCloses) {
    open(vlm::kModeSlave);
    auto silent = std::make_unique<LoopbackServer>("");
    announce(loopbackServer("_velmor_a", silent->port()));
    // No time-out by design: the caller (the GUI thread) waits as long as the connection lives.
    auto query = std::async(std::launch::async, [this] { return agent->queryServer("$"); });
    EXPECT_EQ(query.wait_for(1500ms), std::future_status::timeout);
    EXPECT_EQ(silent->requests(), 1);
    // Discovery is not held up meanwhile: the request does not take the agent's mutex.
    withdraw("_velmor_a");
    EXPECT_EQ(attachment().server, "");
    silent->stop();
    ASSERT_EQ(query.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(query.get(), nullptr);

    // A server that has gone altogether is refused at once.
    announce(loopbackServer("_velmor_b", silent->port()));
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(agent->queryServer("$"), nullptr);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 1s);
    withdraw("_velmor_b");
}

}  // namespace
