#include "plugins/HttpGet.h"

#include <gtest/gtest.h>

#include <sstream>

#include "LoopbackHttpServer.h"
#include "TestSupport.h"

namespace {

using vlm::test::LoopbackHttpServer;
using Socket = LoopbackHttpServer::Socket;

void sendForever(Socket& socket, const std::string& head, const std::string& block) {
    LoopbackHttpServer::writeAll(socket, head);
    boost::system::error_code error;
    while (!error)
        boost::asio::write(socket, boost::asio::buffer(block), error);
}

// The request byte for byte (no port in "Host: "); any status is a document; only a broken
// transfer fails, and a peer that never ends its head cannot grow the buffer for ever.
TEST(HttpGet, RequestBytesAndServerBehaviours) {
    const std::string big(3 * 1024 * 1024 + 17, 'b');  // beyond one read buffer
    auto answer = [](const std::string& bytes) {
        return [bytes](Socket& s, auto&) { LoopbackHttpServer::writeAll(s, bytes); };
    };
    struct Case {
        const char* name;
        LoopbackHttpServer::Handler handler;  // null: the server's 404 page
        bool ok;
        std::string body;
    } cases[] = {
        {"document", answer(LoopbackHttpServer::response(200, "{}")), true, "{}"},
        {"error page", nullptr, true, "<html><body><h1>404 Not Found</h1></body></html>"},
        {"close after head", answer("HTTP/1.0 200 OK\r\nContent-Length: 10\r\n\r\n"), true, ""},
        {"no header lines", answer("HTTP/1.0 200 OK\r\n\r\nbare"), true, "bare"},
        {"big body", answer(LoopbackHttpServer::response(200, big)), true, big},
        {"endless head",
         [](Socket& s, auto&) { sendForever(s, "HTTP/1.0 200 OK\r\n", "X: y\r\n"); }, false, ""},
        {"endless status", [](Socket& s, auto&) { sendForever(s, "", std::string(65536, 'x')); },
         false, ""},
        {"reset in the body",
         [](Socket& s, auto&) {
             LoopbackHttpServer::writeAll(s, "HTTP/1.0 200 OK\r\n\r\n" + std::string(5000, 'b'));
             s.set_option(boost::asio::socket_base::linger(true, 0));  // close = reset
             s.close();
         },
         false, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LoopbackHttpServer server;
        if (c.handler)
            server.handle("/plugins.json", c.handler);
        std::ostringstream body;
        ASSERT_EQ(vlm::httpGet(server.host(), c.handler ? "/plugins.json" : "/x", body), c.ok);
        EXPECT_TRUE(!c.ok || body.str() == c.body) << body.str().size();
        EXPECT_EQ(server.requests().front(),
                  std::string("GET ") + (c.handler ? "/plugins.json" : "/x") +
                      " HTTP/1.0\r\nHost: 127.0.0.1\r\nAccept: */*\r\nConnection: close\r\n\r\n");
    }
    std::ostringstream body;
    const std::string refused = "127.0.0.1:" + std::to_string(vlm::test::freeLoopbackPort());
    EXPECT_FALSE(vlm::httpGet(refused, "/plugins.json", body));
    // A label over 63 bytes fails inside the resolver library: no query leaves the machine.
    EXPECT_FALSE(vlm::httpGet(std::string(70, 'a') + ".invalid", "/plugins.json", body));
    EXPECT_EQ(body.str(), "");
}

}  // namespace
