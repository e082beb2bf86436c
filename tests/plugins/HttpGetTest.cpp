#include "plugins/HttpGet.h"

#include <gtest/gtest.h>

#include <sstream>

#include "LoopbackHttpServer.h"
#include "TestSupport.h"

namespace {

using vlm::test::LoopbackHttpServer;
using Socket = LoopbackHttpServer::Socket;

void send(Socket& socket, const std::string& bytes) {
    LoopbackHttpServer::writeAll(socket, bytes);
}
void sendForever(Socket& socket, const std::string& head, const std::string& block) {
    send(socket, head);
    boost::system::error_code error;
    while (!error)
        boost::asio::write(socket, boost::asio::buffer(block), error);
}

// The request as the design writes it, byte for byte: no port in "Host: ".
TEST(HttpGet, SendsTheHttp10RequestAndReturnsTheBody) {
    LoopbackHttpServer server;
    server.serve("/plugins.json", R"({"Plugins":[],"Images":[]})");
    std::ostringstream body;
    ASSERT_TRUE(vlm::httpGet(server.host(), "/plugins.json", body));
    EXPECT_EQ(body.str(), R"({"Plugins":[],"Images":[]})");
    EXPECT_EQ(server.requests(), std::vector<std::string>{"GET /plugins.json HTTP/1.0\r\nHost: "
                                                          "127.0.0.1\r\nAccept: */*\r\n"
                                                          "Connection: close\r\n\r\n"});
}

// What a server does, and what the caller gets: any status is a document; only a broken
// transfer fails, and a peer that never ends its head cannot grow the buffer for ever.
TEST(HttpGet, ServerBehaviours) {
    const std::string big(3 * 1024 * 1024 + 17, 'b');  // beyond one read buffer
    struct Case {
        const char* name;
        LoopbackHttpServer::Handler handler;  // null: no server listens
        bool ok;
        std::string body;
    } cases[] = {
        {"error page", nullptr, true, "<html><body><h1>404 Not Found</h1></body></html>"},
        {"close after head",
         [](Socket& s, auto&) { send(s, "HTTP/1.0 200 OK\r\nContent-Length: 10\r\n\r\n"); }, true,
         ""},
        {"no header lines", [](Socket& s, auto&) { send(s, "HTTP/1.0 200 OK\r\n\r\nbare body"); },
         true, "bare body"},
        {"big body", [&](Socket& s, auto&) { send(s, LoopbackHttpServer::response(200, big)); },
         true, big},
        {"endless head",
         [](Socket& s, auto&) { sendForever(s, "HTTP/1.0 200 OK\r\n", "X-Filler: xxxxxxxx\r\n"); },
         false, ""},
        {"endless status line",
         [](Socket& s, auto&) { sendForever(s, "", std::string(65536, 'x')); }, false, ""},
        {"reset in the body",
         [](Socket& s, auto&) {
             send(s, "HTTP/1.0 200 OK\r\nContent-Length: 100000\r\n\r\n" + std::string(5000, 'b'));
             s.set_option(boost::asio::socket_base::linger(true, 0));  // close = reset
             s.close();
         },
         false, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LoopbackHttpServer server;
        if (c.handler)
            server.handle("/x", c.handler);
        std::ostringstream body;
        ASSERT_EQ(vlm::httpGet(server.host(), c.handler ? "/x" : "/missing", body), c.ok);
        if (c.ok) {
            EXPECT_TRUE(body.str() == c.body) << body.str().size();
        }
    }
    std::ostringstream body;
    const std::string refused = "127.0.0.1:" + std::to_string(vlm::test::freeLoopbackPort());
    EXPECT_FALSE(vlm::httpGet(refused, "/plugins.json", body));
    // A label over 63 bytes fails inside the resolver library: no query leaves the machine.
    EXPECT_FALSE(vlm::httpGet(std::string(70, 'a') + ".invalid", "/plugins.json", body));
    EXPECT_EQ(body.str(), "");
}

}  // namespace
