#include "ServerControl.h"

#include <curl/curl.h>
#include <future>

#include "AgentTestSupport.h"
#include "plugins/LoopbackHttpServer.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::AgentFixture;
using Server = vlm::test::LoopbackHttpServer;
namespace asio = boost::asio;

// The body of a request whose head the server has read, the rest read from the socket.
std::string bodyOf(Server::Socket& socket, const std::string& request) {
    std::string body = request.substr(request.find("\r\n\r\n") + 4);
    const std::size_t had = body.size();
    body.resize(std::stoul(request.substr(request.find("Content-Length: ") + 16)));
    asio::read(socket, asio::buffer(&body[had], body.size() - had));
    return body;
}

// Faults: a request line, credentials, content type, user agent or body other than the
// server's web interface expects; a path escaped; a request sent while not attached.
TEST_F(AgentFixture, ControlRequestsOnTheWire) {
    Server server;
    std::vector<std::string> bodies;
    for (const char* path : {"/get", "/set_interface_filters"})
        server.handle(path, [&](Server::Socket& socket, const std::string& request) {
            bodies.push_back(bodyOf(socket, request));
            Server::writeAll(socket, Server::response(200, R"({"Config": {"Plugins": []}})"));
        });
    auto agent = makeAgent();
    EXPECT_EQ(agent->queryServer("$"), nullptr);
    EXPECT_TRUE(agent->applyInterfaceFilters({"AA:BB"}));
    agent->attachedServer = server.host();
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
        EXPECT_NE(requests[1].find(line), std::string::npos) << line;
    EXPECT_EQ(bodies, (std::vector<std::string>{R"({ "Path": "a"b"})", "[]"}));
}

// Faults: a crash or a document for an answer that is no JSON, not 200, cut off or reset, or
// from a server that has gone.
TEST_F(AgentFixture, BadAnswersGiveNoDocument) {
    auto agent = makeAgent();
    for (const std::string& answer :
         {Server::response(200, "<html>busy</html>"), Server::response(200, ""),
          Server::response(500, "{}"), Server::response(401, "{}"), std::string("reset")}) {
        Server server;
        server.handle("/get", [&](Server::Socket& socket, const std::string&) {
            boost::system::error_code ignored;
            if (answer != "reset")
                return Server::writeAll(socket, answer);
            Server::writeAll(socket, "HTTP/1.1 200 OK\r\nCont");
            socket.set_option(asio::socket_base::linger(true, 0), ignored);
            socket.close(ignored);
        });
        agent->attachedServer = server.host();
        EXPECT_EQ(agent->queryServer("$"), nullptr) << answer;
        EXPECT_EQ(server.requests().size(), 1u);
    }
    agent->attachedServer = "127.0.0.1:" + std::to_string(vlm::test::freeLoopbackPort());
    EXPECT_EQ(agent->queryServer("$"), nullptr);
}

// Fault: a server host that vanished without closing its connections (or that answers a byte
// a second) holds the settings dialog's Ok, on the GUI thread, for TCP's own minutes.
TEST_F(AgentFixture, SilentServerReleasesTheSettingsOkWithinElevenSeconds) {
    Server silent;
    silent.handle("/set_interface_filters", [](Server::Socket& socket, const std::string&) {
        char byte;
        for (boost::system::error_code closed; !closed;)
            socket.read_some(asio::buffer(&byte, 1), closed);
    });
    auto agent = makeAgent();
    agent->attachedServer = silent.host();
    auto ok = std::async(std::launch::async, [&] { return agent->applyInterfaceFilters({}); });
    ASSERT_EQ(ok.wait_for(11s), std::future_status::ready);
    EXPECT_TRUE(ok.get());
}

}  // namespace
