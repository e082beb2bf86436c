#include <memory>
#include <vector>

#include "KelvaneFixture.h"

namespace {

using namespace std::chrono_literals;
using kelvane::test::EngineServerFixture;
using kelvane::test::RawConnection;
using kelvane::test::statusOf;

class ServerLimits : public EngineServerFixture {
protected:
    void SetUp() override { startServer(); }

    void expectStillServing() {
        auto response =
            vlm::test::httpRequest("POST", port, "/get", R"({"Path": "$"})", "anon:anon", 2s);
        EXPECT_EQ(response.status, 200);
    }

    /// The server either answers with the status given or drops the connection; never 200.
    void expectRefusedWith(const std::string& request, int status) {
        RawConnection connection(port);
        connection.send(request);
        auto raw = connection.receiveAll(5s);
        EXPECT_TRUE(connection.closed()) << raw;
        int answered = statusOf(raw);
        EXPECT_TRUE(answered == status || answered == 0) << raw.substr(0, 200);
        expectStillServing();
    }
};

TEST_F(ServerLimits, OversizedHeaderIsRefused) {
    std::string big(9 * 1024, 'a');
    expectRefusedWith("GET / HTTP/1.1\r\nHost: x\r\nX-Big: " + big + "\r\n\r\n", 431);
    std::string many;
    for (int i = 0; i < 600; ++i)
        many += "X-Field-" + std::to_string(i) + ": value\r\n";
    expectRefusedWith("GET / HTTP/1.1\r\nHost: x\r\n" + many + "\r\n", 431);
    expectRefusedWith("GET /" + big + " HTTP/1.1\r\nHost: x\r\n\r\n", 431);
}

TEST_F(ServerLimits, HeaderJustUnderTheLimitIsServed) {
    std::string field(6 * 1024, 'a');
    auto raw = kelvane::test::rawExchange(
        port, "GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\nX-Big: " + field + "\r\n\r\n");
    EXPECT_EQ(statusOf(raw), 200);
}

TEST_F(ServerLimits, OversizedBodyIsRefused) {
    std::string body = R"({"Path": "$", "pad": ")" + std::string(70 * 1024, 'x') + "\"}";
    expectRefusedWith(kelvane::test::postRequest("/get", body), 413);
    // Announced but never sent: refused on the length alone.
    expectRefusedWith(
        "POST /get HTTP/1.1\r\nHost: x\r\nAuthorization: Basic YW5vbjphbm9u\r\n"
        "Content-Length: 100000000000\r\n\r\n",
        413);
}

TEST_F(ServerLimits, OversizedChunkedBodyIsRefused) {
    std::string chunks;
    for (int i = 0; i < 20; ++i)
        chunks += "1000\r\n" + std::string(0x1000, ' ') + "\r\n";
    expectRefusedWith(
        "POST /get HTTP/1.1\r\nHost: x\r\nAuthorization: Basic YW5vbjphbm9u\r\n"
        "Transfer-Encoding: chunked\r\n\r\n" +
            chunks + "0\r\n\r\n",
        413);
}

TEST_F(ServerLimits, EndlessChunkHeaderIsRefused) {
    // A chunk extension that never ends must not make the server buffer without bound.
    RawConnection connection(port);
    ASSERT_TRUE(
        connection.send("POST /get HTTP/1.1\r\nHost: x\r\nAuthorization: Basic YW5vbjphbm9u\r\n"
                        "Transfer-Encoding: chunked\r\n\r\n10;ext="));
    std::string piece(64 * 1024, 'e');
    bool sending = true;
    for (int i = 0; i < 64 && sending; ++i)
        sending = connection.send(piece);
    auto raw = connection.receiveAll(5s);
    EXPECT_TRUE(connection.closed());
    EXPECT_NE(statusOf(raw), 200);
    expectStillServing();
}

TEST_F(ServerLimits, ClientThatAsksBeforeItsBodyIsToldToContinue) {
    // Some clients ask before they send the body.
    RawConnection connection(port);
    std::string body = R"({"Path": "$", "pad": ")" + std::string(2000, 'x') + "\"}";
    ASSERT_TRUE(
        connection.send("POST /get HTTP/1.1\r\nHost: x\r\nAuthorization: Basic YW5vbjphbm9u\r\n"
                        "Expect: 100-continue\r\nConnection: close\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\n\r\n"));
    auto interim = connection.receiveResponse(2s);
    ASSERT_EQ(statusOf(interim), 100) << interim;
    ASSERT_TRUE(connection.send(body));
    auto raw = connection.receiveAll(5s);
    EXPECT_EQ(statusOf(raw), 200) << raw.substr(0, 200);
}

TEST_F(ServerLimits, HalfRequestsThenHangUpsDoNotStopTheServer) {
    for (int i = 0; i < 20; ++i) {
        RawConnection connection(port);
        ASSERT_TRUE(connection.connected());
        connection.send(i % 2 ? "POST /get HTTP/1.1\r\nHost: x\r\nContent-Length: 40\r\n\r\n{\"P"
                              : "GET /index.ht");
    }
    expectStillServing();
}

TEST_F(ServerLimits, SilentClientsDoNotStopTheServer) {
    // More idle connections than the server has threads.
    std::vector<std::unique_ptr<RawConnection>> silent;
    for (int i = 0; i < 32; ++i) {
        silent.push_back(std::make_unique<RawConnection>(port));
        ASSERT_TRUE(silent.back()->connected());
    }
    silent.back()->send("GET / HTTP/1.1\r\nHost: x\r\n");
    for (int i = 0; i < 5; ++i)
        expectStillServing();
}

TEST_F(ServerLimits, MalformedRequestsAre400) {
    for (const char* request :
         {"GARBAGE\r\n\r\n", "GET / HTTP/9.9\r\n\r\n", "GET / HTTP/1.1\r\nBad Header\r\n\r\n",
          "POST /get HTTP/1.1\r\nContent-Length: -5\r\n\r\n"}) {
        RawConnection connection(port);
        connection.send(request);
        auto raw = connection.receiveAll(5s);
        EXPECT_TRUE(connection.closed()) << request;
        EXPECT_EQ(statusOf(raw), 400) << request << "\n" << raw;
    }
    expectStillServing();
}

class IdleLimit : public EngineServerFixture {};

TEST_F(IdleLimit, SilentConnectionIsDroppedAfterTheIdleTime) {
    kelvane::ServerLimits limits;
    limits.idle = 300ms;
    startServer({}, limits);
    RawConnection silent(port);
    RawConnection slow(port);
    ASSERT_TRUE(slow.send("GET / HTTP/1.1\r\n"));
    auto before = std::chrono::steady_clock::now();
    silent.receiveAll(5s);
    slow.receiveAll(5s);
    EXPECT_TRUE(silent.closed());
    EXPECT_TRUE(slow.closed());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 3s);
}

}  // namespace
