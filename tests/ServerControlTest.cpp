#include "ServerControl.h"

#include <curl/curl.h>

#include <boost/asio.hpp>
#include <atomic>
#include <thread>

#include "Agent/AgentFixture.h"

namespace {

using boost::asio::ip::tcp;
using vlm::test::AgentFixture;

/// \brief Answers each connection on loopback with one canned reply and keeps the requests.
class CannedServer {
public:
    explicit CannedServer(std::string reply)
        : reply_(std::move(reply)), acceptor_(context_, tcp::endpoint(tcp::v4(), 0)) {
        acceptor_.set_option(tcp::acceptor::reuse_address(true));
        thread_ = std::thread([this] { serve(); });
    }
    ~CannedServer() {
        // A blocking accept does not wake when the acceptor is closed from another thread on
        // Linux, so wake it with one last connection.
        stopping_ = true;
        boost::system::error_code ignored;
        tcp::socket waker(context_);
        waker.connect(tcp::endpoint(boost::asio::ip::address_v4::loopback(),
                                    acceptor_.local_endpoint().port()),
                      ignored);
        thread_.join();
    }
    std::string endpoint() const {
        return "127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port());
    }
    std::vector<std::string> requests() {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

private:
    void serve() {
        for (;;) {
            boost::system::error_code error;
            tcp::socket socket(context_);
            acceptor_.accept(socket, error);
            if (error || stopping_)
                return;
            std::string request;
            char buffer[4096];
            // Read the head, then as many body bytes as Content-Length says.
            for (;;) {
                std::size_t n = socket.read_some(boost::asio::buffer(buffer), error);
                if (error)
                    break;
                request.append(buffer, n);
                auto head = request.find("\r\n\r\n");
                if (head == std::string::npos)
                    continue;
                auto lengthAt = request.find("Content-Length: ");
                std::size_t length =
                    lengthAt == std::string::npos ? 0 : std::stoul(request.substr(lengthAt + 16));
                if (request.size() >= head + 4 + length)
                    break;
            }
            {
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.push_back(request);
            }
            boost::asio::write(socket, boost::asio::buffer(reply_), error);
            socket.shutdown(tcp::socket::shutdown_both, error);
        }
    }

    std::string reply_;
    boost::asio::io_context context_;
    tcp::acceptor acceptor_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::mutex mutex_;
    std::vector<std::string> requests_;
};

std::string ok(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

TEST(HttpPost, RequestOnTheWire) {
    CannedServer server(ok("{}"));
    const char* headers[] = {"Content-Type: application/json", "X-Ignored: yes"};
    auto response = vlm::httpPost("tag", server.endpoint() + "/get", headers, 1, R"({"a":1})", -1);
    EXPECT_EQ(response->status, 200);
    EXPECT_EQ(response->tag, "tag");
    EXPECT_EQ(response->body, "{}");
    EXPECT_EQ(response->totalTime, 0.0);
    EXPECT_NE(response->headers.find("HTTP/1.1 200 OK\r\n"), std::string::npos);
    ASSERT_EQ(server.requests().size(), 1u);
    const std::string request = server.requests().front();
    EXPECT_EQ(request.rfind("POST /get HTTP/1.1\r\n", 0), 0u) << request;
    EXPECT_NE(request.find("Authorization: Basic YW5vbjphbm9u\r\n"), std::string::npos);
    EXPECT_NE(request.find("Content-Type: application/json\r\n"), std::string::npos);
    EXPECT_EQ(request.find("X-Ignored"), std::string::npos);
    EXPECT_NE(request.find(std::string("User-Agent: ") + curl_version() + "\r\n"),
              std::string::npos);
    EXPECT_EQ(request.substr(request.size() - 7), R"({"a":1})");
}

TEST(HttpPost, FailedTransferKeepsTheErrorText) {
    unsigned short port = vlm::test::freeLoopbackPort();
    auto response = vlm::httpPost(nullptr, "127.0.0.1:" + std::to_string(port) + "/get", nullptr, 0,
                                  nullptr, 0);
    EXPECT_EQ(response->status, 0);
    EXPECT_EQ(response->error, "Couldn't connect to server");
}

TEST(HttpPost, RedirectsAreNotFollowed) {
    CannedServer server(
        "HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/x\r\n"
        "Content-Length: 0\r\nConnection: close\r\n\r\n");
    auto response = vlm::httpPost(nullptr, server.endpoint() + "/get", nullptr, 0, "{}", -1);
    EXPECT_EQ(response->status, 302);
    EXPECT_EQ(server.requests().size(), 1u);
}

class QueryServer : public AgentFixture {};

TEST_F(QueryServer, NotAttachedSendsNothing) {
    auto agent = makeAgent();
    EXPECT_EQ(agent->queryServer("$"), nullptr);
}

TEST_F(QueryServer, BodyCarriesThePathUnescaped) {
    CannedServer server(ok(R"({"Config": {"Plugins": []}})"));
    auto agent = makeAgent();
    agent->attachedServer = server.endpoint();
    auto document = agent->queryServer("$");
    ASSERT_NE(document, nullptr);
    EXPECT_TRUE((*document)["Config"]["Plugins"].IsArray());
    agent->queryServer("a\"b");
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].substr(requests[0].find("\r\n\r\n") + 4), R"({ "Path": "$"})");
    EXPECT_EQ(requests[1].substr(requests[1].find("\r\n\r\n") + 4), R"({ "Path": "a"b"})");
}

TEST_F(QueryServer, NonJsonOrNon200GivesNull) {
    auto agent = makeAgent();
    for (const std::string& reply :
         {ok("not json"), ok(""),
          std::string("HTTP/1.1 500 Oops\r\nContent-Length: 2\r\nConnection: close\r\n\r\n{}")}) {
        CannedServer server(reply);
        agent->attachedServer = server.endpoint();
        EXPECT_EQ(agent->queryServer("$"), nullptr);
    }
}

class ApplyInterfaceFilters : public AgentFixture {};

TEST_F(ApplyInterfaceFilters, StoresTheListAndSendsNothingWhenDetached) {
    auto agent = makeAgent();
    EXPECT_TRUE(agent->applyInterfaceFilters({"AA:BB", "CC:DD"}));
    EXPECT_NE(savedConfig().find(
                  R"("discovery":{"filtering":[{"hardware_id":"AA:BB"},{"hardware_id":"CC:DD"}]})"),
              std::string::npos)
        << savedConfig();
    EXPECT_TRUE(agent->applyInterfaceFilters({}));
    EXPECT_NE(savedConfig().find(R"("discovery":{"filtering":[]})"), std::string::npos);
}

TEST_F(ApplyInterfaceFilters, SendsTheRunningFiltersToTheAttachedServer) {
    CannedServer server(ok("[]"));
    auto agent = makeAgent();
    agent->attachedServer = server.endpoint();
    // No interface of this machine has that hardware address: an empty list goes out.
    EXPECT_TRUE(agent->applyInterfaceFilters({"AA:BB"}));
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].rfind("POST /set_interface_filters HTTP/1.1\r\n", 0), 0u);
    EXPECT_EQ(requests[0].substr(requests[0].find("\r\n\r\n") + 4), "[]");
}

}  // namespace
