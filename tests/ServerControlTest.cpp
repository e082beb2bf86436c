#include "ServerControl.h"

#include <curl/curl.h>

#include <boost/asio.hpp>
#include <future>

#include "Agent/AgentFixture.h"

namespace {

using namespace std::chrono_literals;
using boost::asio::ip::tcp;
using vlm::test::AgentFixture;

/// \brief A loopback server: for each connection it reads the request, keeps it, and hands the
/// socket to answer; stopping wakes an answer that waits on stopping().
class LoopbackServer {
public:
    using Answer = std::function<void(tcp::socket&, LoopbackServer&)>;
    explicit LoopbackServer(Answer answer)
        : answer_(std::move(answer)), acceptor_(context_, tcp::endpoint(tcp::v4(), 0)) {
        thread_ = std::thread([this] {
            for (;;) {
                tcp::socket socket(context_);
                boost::system::error_code error;
                acceptor_.accept(socket, error);
                if (error || stopping_)
                    return;
                // The head, then as many body bytes as it announces.
                std::string request;
                char buffer[8192];
                for (std::size_t head = std::string::npos; !error;) {
                    request.append(buffer, socket.read_some(boost::asio::buffer(buffer), error));
                    head = request.find("\r\n\r\n");
                    const std::size_t length = request.find("Content-Length: ");
                    if (head != std::string::npos &&
                        request.size() >= head + 4 +
                                              (length == std::string::npos
                                                   ? 0
                                                   : std::stoul(request.substr(length + 16))))
                        break;
                }
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    requests_.push_back(request);
                }
                answer_(socket, *this);
            }
        });
    }
    ~LoopbackServer() {
        stopping_ = true;
        tcp::socket waker(context_);
        boost::system::error_code ignored;
        waker.connect({boost::asio::ip::address_v4::loopback(), port()}, ignored);
        thread_.join();
    }
    unsigned short port() const { return acceptor_.local_endpoint().port(); }
    std::string endpoint() const { return "127.0.0.1:" + std::to_string(port()); }
    std::vector<std::string> requests() {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }
    bool stopping() const { return stopping_; }

private:
    Answer answer_;
    boost::asio::io_context context_;
    tcp::acceptor acceptor_;
    std::atomic<bool> stopping_{false};
    std::mutex mutex_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

LoopbackServer::Answer reply(const std::string& status, const std::string& body) {
    const std::string text = "HTTP/1.1 " + status +
                             "\r\nContent-Length: " + std::to_string(body.size()) +
                             "\r\nConnection: close\r\n\r\n" + body;
    return [text](tcp::socket& socket, LoopbackServer&) {
        boost::system::error_code ignored;
        boost::asio::write(socket, boost::asio::buffer(text), ignored);
    };
}

std::string bodyOf(const std::string& request) {
    return request.substr(request.find("\r\n\r\n") + 4);
}

// Faults: a request line, credentials, content type, user agent or body other than the
// server's web interface expects; a path escaped; a redirect followed.
TEST_F(AgentFixture, ControlRequestsOnTheWire) {
    LoopbackServer server(reply("200 OK", R"({"Config": {"Plugins": []}})"));
    auto agent = makeAgent();
    EXPECT_EQ(agent->queryServer("$"), nullptr);
    EXPECT_TRUE(agent->applyInterfaceFilters({"AA:BB"}));
    agent->attachedServer = server.endpoint();
    auto document = agent->queryServer("a\"b");
    ASSERT_NE(document, nullptr);
    EXPECT_TRUE((*document)["Config"]["Plugins"].IsArray());
    // No interface of this machine has that hardware address: an empty list goes out.
    EXPECT_TRUE(agent->applyInterfaceFilters({"AA:BB"}));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].rfind("POST /get HTTP/1.1\r\n", 0), 0u) << requests[0];
    EXPECT_EQ(requests[1].rfind("POST /set_interface_filters HTTP/1.1\r\n", 0), 0u);
    for (const std::string& line : {std::string("Authorization: Basic YW5vbjphbm9u\r\n"),
                                    std::string("Content-Type: application/json\r\n"),
                                    "User-Agent: " + std::string(curl_version()) + "\r\n"})
        EXPECT_NE(requests[0].find(line), std::string::npos) << line;
    EXPECT_EQ(bodyOf(requests[0]), R"({ "Path": "a"b"})");
    EXPECT_EQ(bodyOf(requests[1]), "[]");

    LoopbackServer moved(reply("302 Found\r\nLocation: http://" + server.endpoint() + "/x", ""));
    auto response = vlm::httpPost("tag", moved.endpoint() + "/get", nullptr, 0, "{}", -1);
    EXPECT_EQ(response->status, 302);
    EXPECT_EQ(response->tag, "tag");
    EXPECT_EQ(response->totalTime, 0.0);
    EXPECT_EQ(server.requests().size(), 2u);
}

// Faults: a crash or a document for an answer that is no JSON, not 200, cut off or reset.
TEST_F(AgentFixture, BadAnswersGiveNoDocument) {
    auto agent = makeAgent();
    const LoopbackServer::Answer reset = [](tcp::socket& socket, LoopbackServer&) {
        boost::system::error_code ignored;
        boost::asio::write(socket, boost::asio::buffer(std::string("HTTP/1.1 200 OK\r\nCont")),
                           ignored);
        socket.set_option(boost::asio::socket_base::linger(true, 0), ignored);
        socket.close(ignored);
    };
    for (const auto& answer :
         {reply("200 OK", "<html>busy</html>"), reply("200 OK", ""),
          reply("500 Internal Server Error", "{}"), reply("401 Unauthorized", "{}"), reset}) {
        LoopbackServer server(answer);
        agent->attachedServer = server.endpoint();
        EXPECT_EQ(agent->queryServer("$"), nullptr);
        EXPECT_EQ(server.requests().size(), 1u);
    }
    agent->attachedServer = "127.0.0.1:" + std::to_string(vlm::test::freeLoopbackPort());
    EXPECT_EQ(agent->queryServer("$"), nullptr);
}

// Fault: a server host that vanished without closing its connections, or answers a byte a
// second, holds the settings dialog's Ok (the GUI thread) for TCP's own minutes.
TEST_F(AgentFixture, SilentOrTricklingServerReleasesTheCallerWithinElevenSeconds) {
    LoopbackServer silent([](tcp::socket&, LoopbackServer& self) {
        while (!self.stopping())
            std::this_thread::sleep_for(10ms);
    });
    LoopbackServer trickle([](tcp::socket& socket, LoopbackServer& self) {
        const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n{";
        boost::system::error_code error;
        boost::asio::write(socket, boost::asio::buffer(head), error);
        for (int i = 0; i < 3000 && !error && !self.stopping(); ++i) {
            std::this_thread::sleep_for(10ms);
            if (i % 100 == 0)
                boost::asio::write(socket, boost::asio::buffer(std::string(" ")), error);
        }
    });
    auto filtersAgent = makeAgent();
    auto queryAgent = makeAgent();
    filtersAgent->attachedServer = silent.endpoint();
    queryAgent->attachedServer = trickle.endpoint();
    const auto started = std::chrono::steady_clock::now();
    auto ok =
        std::async(std::launch::async, [&] { return filtersAgent->applyInterfaceFilters({}); });
    auto query = std::async(std::launch::async, [&] { return queryAgent->queryServer("$"); });
    ASSERT_EQ(ok.wait_for(11s), std::future_status::ready);
    ASSERT_EQ(query.wait_until(started + 11s), std::future_status::ready);
    EXPECT_GE(std::chrono::steady_clock::now() - started, 9s);
    EXPECT_TRUE(ok.get());
    EXPECT_EQ(query.get(), nullptr);
}

}  // namespace
