#include "plugins/HttpGet.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <streambuf>

#include "LoopbackHttpServer.h"
#include "TestSupport.h"

namespace {

using vlm::httpGet;
using vlm::test::LoopbackHttpServer;
using Socket = LoopbackHttpServer::Socket;

constexpr std::size_t kBigBody = 100u * 1024 * 1024;

char patternAt(std::size_t i) {
    return static_cast<char>((i * 7 + i / 4099) % 251);
}

/// Checks a long body against the pattern as it arrives, without keeping it.
class PatternCheck : public std::streambuf {
public:
    std::size_t size = 0;
    bool matches = true;

protected:
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        for (std::streamsize i = 0; i < n; ++i)
            matches = matches && s[i] == patternAt(size + static_cast<std::size_t>(i));
        size += static_cast<std::size_t>(n);
        return n;
    }
    int_type overflow(int_type c) override {
        if (c != traits_type::eof()) {
            char byte = static_cast<char>(c);
            xsputn(&byte, 1);
        }
        return c;
    }
};

void sendPattern(Socket& socket, std::size_t total) {
    LoopbackHttpServer::writeAll(socket,
                                 "HTTP/1.0 200 OK\r\nContent-Type: application/octet-stream"
                                 "\r\nContent-Length: " +
                                     std::to_string(total) + "\r\n\r\n");
    std::string chunk(1024 * 1024, '\0');
    for (std::size_t sent = 0; sent < total; sent += chunk.size()) {
        chunk.resize(std::min(chunk.size(), total - sent));
        for (std::size_t i = 0; i < chunk.size(); ++i)
            chunk[i] = patternAt(sent + i);
        boost::system::error_code error;
        boost::asio::write(socket, boost::asio::buffer(chunk), error);
        if (error)
            return;
    }
}

TEST(HttpGet, SendsTheHttp10RequestAndReturnsTheBody) {
    LoopbackHttpServer server;
    server.serve("/plugins.json", R"({"Plugins":[],"Images":[]})");
    std::ostringstream body;
    ASSERT_TRUE(httpGet(server.host(), "/plugins.json", body));
    EXPECT_EQ(body.str(), R"({"Plugins":[],"Images":[]})");
    ASSERT_EQ(server.requests().size(), 1u);
    // No port in "Host: ", only the host text.
    EXPECT_EQ(server.requests()[0],
              "GET /plugins.json HTTP/1.0\r\nHost: 127.0.0.1\r\nAccept: */*\r\n"
              "Connection: close\r\n\r\n");
}

TEST(HttpGet, ErrorPageIsReturnedAsTheDocument) {
    LoopbackHttpServer server;
    std::ostringstream body;
    ASSERT_TRUE(httpGet(server.host(), "/missing.json", body));
    EXPECT_EQ(body.str(), "<html><body><h1>404 Not Found</h1></body></html>");
}

TEST(HttpGet, ServerClosingAfterTheHeadersGivesAnEmptyBody) {
    LoopbackHttpServer server;
    server.handle("/empty", [](Socket& socket, const std::string&) {
        LoopbackHttpServer::writeAll(socket, "HTTP/1.0 200 OK\r\nContent-Length: 10\r\n\r\n");
    });
    std::ostringstream body;
    ASSERT_TRUE(httpGet(server.host(), "/empty", body));
    EXPECT_EQ(body.str(), "");
}

TEST(HttpGet, ResponseWithoutHeaderLines) {
    LoopbackHttpServer server;
    server.handle("/bare", [](Socket& socket, const std::string&) {
        LoopbackHttpServer::writeAll(socket, "HTTP/1.0 200 OK\r\n\r\nbare body");
    });
    std::ostringstream body;
    ASSERT_TRUE(httpGet(server.host(), "/bare", body));
    EXPECT_EQ(body.str(), "bare body");
}

TEST(HttpGet, UnresolvableHostSendsNothing) {
    LoopbackHttpServer server;
    // A label longer than 63 bytes fails inside the resolver library before any query is
    // sent, so the test stays off the network.
    const std::string host = std::string(70, 'a') + ".invalid";
    std::ostringstream body;
    EXPECT_FALSE(httpGet(host, "/plugins.json", body));
    EXPECT_EQ(body.str(), "");
    EXPECT_EQ(server.connections(), 0);
}

TEST(HttpGet, RefusedConnectionFails) {
    std::ostringstream body;
    const unsigned short port = vlm::test::freeLoopbackPort();
    EXPECT_FALSE(httpGet("127.0.0.1:" + std::to_string(port), "/plugins.json", body));
}

TEST(HttpGet, HundredMegabyteBodyArrivesWhole) {
    LoopbackHttpServer server;
    server.handle("/big.dll",
                  [](Socket& socket, const std::string&) { sendPattern(socket, kBigBody); });
    PatternCheck check;
    std::ostream body(&check);
    ASSERT_TRUE(httpGet(server.host(), "/big.dll", body));
    EXPECT_EQ(check.size, kBigBody);
    EXPECT_TRUE(check.matches);
}

TEST(HttpGet, EndlessHeadersFailInsteadOfGrowingForever) {
    LoopbackHttpServer server;
    server.handle("/endless", [](Socket& socket, const std::string&) {
        LoopbackHttpServer::writeAll(socket, "HTTP/1.0 200 OK\r\n");
        const std::string line = "X-Filler: " + std::string(1000, 'x') + "\r\n";
        std::string block;
        for (int i = 0; i < 64; ++i)
            block += line;
        boost::system::error_code error;
        while (!error)
            boost::asio::write(socket, boost::asio::buffer(block), error);
    });
    std::ostringstream body;
    EXPECT_FALSE(httpGet(server.host(), "/endless", body));
}

TEST(HttpGet, EndlessStatusLineFails) {
    LoopbackHttpServer server;
    server.handle("/endless", [](Socket& socket, const std::string&) {
        const std::string block(64 * 1024, 'x');
        boost::system::error_code error;
        while (!error)
            boost::asio::write(socket, boost::asio::buffer(block), error);
    });
    std::ostringstream body;
    EXPECT_FALSE(httpGet(server.host(), "/endless", body));
}

TEST(HttpGet, ResetInTheMiddleOfTheBodyFails) {
    LoopbackHttpServer server;
    server.handle("/reset", [](Socket& socket, const std::string&) {
        LoopbackHttpServer::writeAll(
            socket, "HTTP/1.0 200 OK\r\nContent-Length: 100000\r\n\r\n" + std::string(5000, 'b'));
        // Linger 0 turns the close into a reset.
        socket.set_option(boost::asio::socket_base::linger(true, 0));
        boost::system::error_code ignored;
        socket.close(ignored);
    });
    std::ostringstream body;
    EXPECT_FALSE(httpGet(server.host(), "/reset", body));
}

TEST(HttpGet, SplitsHostsAndAddresses) {
    using vlm::splitAddress;
    using vlm::splitHostPort;
    EXPECT_EQ(splitHostPort("catalogue.example"),
              std::make_pair(std::string("catalogue.example"), std::string("http")));
    EXPECT_EQ(splitHostPort("127.0.0.1:8123"),
              std::make_pair(std::string("127.0.0.1"), std::string("8123")));
    EXPECT_EQ(splitHostPort("[::1]:81"), std::make_pair(std::string("::1"), std::string("81")));
    EXPECT_EQ(splitHostPort("::1"), std::make_pair(std::string("::1"), std::string("http")));
    EXPECT_EQ(splitAddress("host:81/files/a.dll"),
              std::make_pair(std::string("host:81"), std::string("/files/a.dll")));
    EXPECT_EQ(splitAddress("http://host/a.png"),
              std::make_pair(std::string("host"), std::string("/a.png")));
    EXPECT_EQ(splitAddress("host"), std::make_pair(std::string("host"), std::string("/")));
}

TEST(HttpGet, CatalogueHostComesFromTheEnvironment) {
    setenv("VELMOR_CATALOGUE_HOST", "127.0.0.1:9", 1);
    EXPECT_EQ(vlm::catalogueHost(), "127.0.0.1:9");
    unsetenv("VELMOR_CATALOGUE_HOST");
    EXPECT_EQ(vlm::catalogueHost(), "plugins.corvane-technologies.com");
}

}  // namespace
