// The engine stand-in as browsers, the agent and hostile clients see it, over raw bytes.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "EngineServer.h"
#include "Kelvane.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Rows = std::vector<std::pair<std::string, int>>;
const std::string kAuth = "Authorization: Basic YW5vbjphbm9u\r\n";

/// \brief A TCP connection to 127.0.0.x that sends exactly the bytes it is given.
struct Raw {
    Raw(unsigned short port, const char* host = "127.0.0.1") {
        const timeval wait{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        sockaddr_in address{AF_INET, htons(port), {inet_addr(host)}, {}};
        connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    ~Raw() { close(fd); }
    Raw& send(const std::string& bytes) {
        for (std::size_t sent = 0, n = 1; n > 0 && sent < bytes.size(); sent += n)
            n = std::max<ssize_t>(0, ::send(fd, &bytes[sent], bytes.size() - sent, MSG_NOSIGNAL));
        return *this;
    }
    // What arrives until the peer closes (closed) or a second passes in silence.
    std::string read() {
        std::string data;
        char chunk[16384];
        ssize_t n = 0;
        while ((n = recv(fd, chunk, sizeof chunk, 0)) > 0)
            data.append(chunk, n);
        closed = closed || n == 0 || (n < 0 && errno != EAGAIN);
        return data;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool closed = false;
};

int statusOf(const std::string& raw) {
    return raw.compare(0, 5, "HTTP/") == 0 ? std::atoi(raw.c_str() + 9) : 0;
}
std::string post(const std::string& target, const std::string& body,
                 const std::string& auth = kAuth) {
    return "POST " + target + " HTTP/1.1\r\n" + auth +
           "Connection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           body;
}
std::string get(const std::string& target) {
    return "GET " + target + " HTTP/1.1\r\nConnection: close\r\n\r\n";
}
std::string ask(unsigned short port, const std::string& request, const char* host = "127.0.0.1") {
    return Raw(port, host).send(request).read();
}

class EngineServer : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(web + "/sub");
        fs::create_directories(web + "/%2e%2e");
        for (const char* name :
             {"index.html", "app.js", "sub/index.html", "%2e%2e/in.txt", "i.png"})
            vlm::test::writeFile(web + "/" + name, name);
        vlm::test::writeFile(secret, "outside-the-web-app");
        fs::create_symlink(secret, web + "/link.txt");
        fs::create_directory_symlink(base.path(), web + "/up");
        fs::create_symlink(web + "/app.js", web + "/alias.js");
        kelvane::ServerLimits limits;
        limits.idle = 500ms;
        server =
            std::make_unique<kelvane::EngineServer>(std::vector<std::string>{}, web, false, limits);
        std::string error;
        ASSERT_TRUE(server->start({{"127.0.0.1", "255.0.0.0"}}, 0, error)) << error;
        port = server->port();
    }
    // Each request → its status (0: the connection may only be dropped); never 200 where
    // another status is due, and the connection ends.
    void expectStatuses(const Rows& rows) {
        for (const auto& [request, expected] : rows) {
            Raw connection(port);
            const std::string raw = connection.send(request).read();
            const int answered = statusOf(raw);
            EXPECT_TRUE(answered == expected || (answered == 0 && expected >= 413) ||
                        (expected == 0 && answered >= 400))
                << request.substr(0, 80) << "\n"
                << raw.substr(0, 200);
            EXPECT_TRUE(connection.closed) << request.substr(0, 80);
            EXPECT_EQ(raw.find("outside-the-web-app"), std::string::npos) << request;
        }
    }
    vlm::test::TempDir base;
    const std::string web = base.path() + "/webapp", secret = base.path() + "/secret.txt";
    std::unique_ptr<kelvane::EngineServer> server;
    unsigned short port = 0;
};

// Control requests need Basic anon:anon (the scheme in any case), else 401 with a
// WWW-Authenticate header and nothing of the document; the web app needs none.
TEST_F(EngineServer, AuthenticationMatrix) {
    // clang-format off
    const std::pair<std::string, int> fields[] = {
        {"", 401}, {kAuth, 200}, {"Authorization: basic YW5vbjphbm9u\r\n", 200},
        {"Authorization: Basic YW5vbjp3cm9uZw==\r\n", 401}, {"Authorization: Basic YWRtaW46YW5vbg==\r\n", 401},
        {"Authorization: Bearer YW5vbjphbm9u\r\n", 401}, {"Authorization: YW5vbjphbm9u\r\n", 401},
        {"Authorization: Basic\r\n", 401}, {"Authorization: Basic YW5vbjph\r\n", 401}};
    // clang-format on
    for (const char* target : {"/get", "/set_interface_filters"})
        for (const auto& [field, expected] : fields) {
            const std::string body = target[1] == 'g' ? R"({"Path":"$"})" : "[]";
            const std::string raw = ask(port, post(target, body, field));
            EXPECT_EQ(statusOf(raw), expected) << target << " " << field;
            EXPECT_EQ(raw.find("WWW-Authenticate: Basic ") != std::string::npos, expected == 401);
            EXPECT_EQ(raw.find("Plugins") != std::string::npos, expected == 200 && body != "[]");
        }
    expectStatuses({{get("/"), 200}, {post("/index.html", "{}", ""), 401}});
}

// Refused requests: oversized headers and bodies, malformed requests and control bodies; the
// server serves on afterwards with its filters unchanged.
TEST_F(EngineServer, RefusedRequests) {
    const std::string big(9 * 1024, 'a'), filters = "/set_interface_filters";
    std::string fields;
    for (int i = 0; i < 600; ++i)
        fields += "X-Field-" + std::to_string(i) + ": value\r\n";
    // clang-format off
    expectStatuses({
        {"GET / HTTP/1.1\r\nX-Big: " + big + "\r\n\r\n", 431}, {"GET / HTTP/1.1\r\n" + fields + "\r\n", 431},
        {"GET /" + big + " HTTP/1.1\r\n\r\n", 431}, {"GET / HTTP/1.1\r\nConnection: close\r\nX: " + big.substr(3000) + "\r\n\r\n", 200},
        {"POST /get HTTP/1.1\r\n" + kAuth + "Content-Length: 100000000000\r\n\r\n", 413},
        {"GARBAGE\r\n\r\n", 400}, {post("/get", std::string(60000, '[')), 400}, {post("/get", R"({"path": "$"})"), 400},
        {post("/get", R"({"Path": "$.Config.Nothing"})"), 404}, {post(filters, R"([{"Ip": "::1", "Mask": "ffff::"}])"), 400},
        {post("/nothing", "{}"), 404}, {"PUT /get HTTP/1.1\r\n" + kAuth + "\r\n", 405},
    });
    // clang-format on
    EXPECT_NE(ask(port, post("/get", R"({"Path": "$.Engine.InterfaceFilters"})"))
                  .find(R"([{"Ip":"127.0.0.1","Mask":"255.0.0.0"}])"),
              std::string::npos);
}

// The web app folder serves its files (links inside it too) with their types, and never a
// file whose real path is outside it, however the target is written.
TEST_F(EngineServer, WebAppTraversal) {
    // clang-format off
    const std::tuple<std::string, std::string, std::string> served[] = {
        {"/", "index.html", "text/html; charset=utf-8"}, {"/sub/", "sub/index.html", "text/html"},
        {"/app.js?v=3", "app.js", "application/javascript"}, {"/alias.js", "app.js", "application/javascript"},
        {"/i.png", "i.png", "image/png"}, {"/%252e%252e/in.txt", "%2e%2e/in.txt", "text/plain"}};
    // clang-format on
    for (const auto& [target, body, type] : served) {
        const std::string raw = ask(port, get(target));
        EXPECT_EQ(raw.substr(raw.find("\r\n\r\n") + 4), body) << target;
        EXPECT_NE(raw.find("Content-Type: " + type), std::string::npos) << target << raw;
    }
    Rows refused;
    // clang-format off
    for (const std::string& target : std::vector<std::string>{
             "/../secret.txt", "/sub/../../secret.txt", "/%2e%2e/secret.txt", "/%2E%2E%2Fsecret.txt",
             "/..%2fsecret.txt", "/.%2e/secret.txt", "/sub/%2e%2e%2f%2e%2e%2fsecret.txt", "/%252e%252e%252fsecret.txt",
             "/..\\secret.txt", "/%5C..%5Csecret.txt", "\\..\\secret.txt", "/../secret.txt%00.html",
             "/index.html%00/../../secret.txt", "/%00", "/" + secret, "//" + secret, "/%2f" + secret.substr(1),
             secret, "http://127.0.0.1" + secret, "/link.txt", "/up/secret.txt", "/up/webapp/../secret.txt",
             "/%c0%ae%c0%ae/secret.txt", "/..;/secret.txt", "/.../secret.txt", "/%", "/%2", "/%zz", "/sub", "/missing.html"})
        // clang-format on
        refused.emplace_back(get(target), 404);
    refused.emplace_back("GET / HTTP/1.1\r\n", 0);  // dropped after the idle time
    expectStatuses(refused);
    const std::string head = ask(port, "HEAD /app.js HTTP/1.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(head.substr(head.find("Content-Length: ")), "Content-Length: 6\r\n\r\n");
}

// The library's life as the engine child lives it: filters checked, the document, filters
// applied at once, a taken port, stop, start again.
TEST(Engine, Lifecycle) {
    vlm::test::TempDir common, appData;
    const std::string plugins = common.path() + "/Corvane Technologies/Velmor/Plugins";
    fs::create_directories(plugins);
    for (const char* name : {"Delta_4.2.so", "<b>.so", "notes.txt"})
        vlm::test::writeFile(plugins + "/" + name, "");
    const unsigned short port = vlm::test::freeLoopbackPort();
    setenv("VELMOR_COMMON_APPDATA", common.path().c_str(), 1);
    setenv("APPDATA", appData.path().c_str(), 1);
    setenv("VELMOR_ENGINE_PORT", std::to_string(port).c_str(), 1);
    for (const char* bad : {"not-an-address", "::1", "300.1.1.1"})
        EXPECT_NE(KLV_AddInterfaceFilter(bad, "255.0.0.0"), 0) << bad;
    EXPECT_NE(KLV_AddInterfaceFilter("127.0.0.1", nullptr), 0);
    KLV_AddInterfaceFilter("192.0.2.1", "255.255.255.0");  // never on this machine: skipped
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
    ASSERT_EQ(KLV_Initialize(-1, 0, 3), 0);
    EXPECT_NE(KLV_Initialize(-1, 0, 1), 0);  // already running
    const std::string whole = ask(port, post("/get", R"({"Path":"$"})"));
    // clang-format off
    for (const std::string& part : std::vector<std::string>{
             R"("Plugins":[{"Name":"<b>","Major":1,"Minor":0},{"Name":"Delta","Major":4,"Minor":2}])",
             R"("PluginDirectory":[")" + plugins + R"(",")" + appData.path() + "/Corvane Technologies/velmor/plugins\"]",
             R"("Master":true,"Port":)" + std::to_string(port), R"("InterfaceFilters":[{"Ip":"192.0.2.1")"})
        // clang-format on
        EXPECT_NE(whole.find(part), std::string::npos) << part << "\n" << whole;
    const std::string page = ask(port, get("/"));  // no web app folder: the status page
    EXPECT_NE(page.find("VELMOR Engine"), std::string::npos);
    EXPECT_NE(page.find("&lt;b&gt;"), std::string::npos);  // file names are never markup

    // Filters take effect before the answer: the old address is gone, the new one serves.
    const std::string moved =
        ask(port, post("/set_interface_filters", R"([{"Ip":"127.0.0.2","Mask":"255.0.0.0"}])"));
    EXPECT_NE(moved.find(R"(200 OK)"), std::string::npos) << moved;
    EXPECT_NE(moved.find(R"([{"Ip":"127.0.0.2","Mask":"255.0.0.0"}])"), std::string::npos);
    EXPECT_EQ(statusOf(ask(port, post("/get", R"({"Path":"$"})"), "127.0.0.2")), 200);
    EXPECT_EQ(statusOf(ask(port, post("/get", R"({"Path":"$"})"))), 0);
    // Only another machine's address (an agent sends its own): listening on all, never on none.
    const std::string elsewhere = R"([{"Ip":"192.0.2.1","Mask":"255.255.255.0"}])";
    EXPECT_EQ(statusOf(ask(port, post("/set_interface_filters", elsewhere), "127.0.0.2")), 200);
    KLV_Uninitialize();
    EXPECT_EQ(statusOf(ask(port, post("/get", R"({"Path":"$"})"), "127.0.0.3")), 0);
    KLV_Uninitialize();
    const int taken = socket(AF_INET, SOCK_STREAM, 0), reuse = 1;  // past TIME_WAITs
    setsockopt(taken, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    sockaddr_in any{AF_INET, htons(port), {htonl(INADDR_ANY)}, {}};
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
    listen(taken, 1);
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
    EXPECT_NE(KLV_Initialize(-1, 0, 1), 0);
    close(taken);
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");  // the same filters again, kept once
    ASSERT_EQ(KLV_Initialize(-1, 0, 1), 0);
    EXPECT_NE(ask(port, post("/get", R"({"Path":"$.Engine"})"))
                  .find(R"("Master":false,"Port":)" + std::to_string(port) +
                        R"(,"InterfaceFilters":[{"Ip":"127.0.0.1","Mask":"255.0.0.0"}]})"),
              std::string::npos);
    KLV_Uninitialize();
}

}  // namespace
