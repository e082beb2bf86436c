// The engine stand-in as browsers, the agent and hostile clients see it, over raw bytes.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <filesystem>

#include "EngineServer.h"
#include "Kelvane.h"
#include "TestSupport.h"
#include "fake_dnssd_control.h"

namespace {

namespace fs = std::filesystem;
using Rows = std::vector<std::pair<std::string, int>>;
const std::string kAuth = "Authorization: Basic YW5vbjphbm9u\r\n";

// Sends bytes to 127.0.0.x; what arrives until the server closes (closed) or is silent for 1 s.
std::string ask(unsigned short port, const std::string& bytes, const char* host = "127.0.0.1",
                bool* closed = nullptr) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval wait{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    sockaddr_in address{AF_INET, htons(port), {inet_addr(host)}, {}};
    connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    for (std::size_t sent = 0, n = 1; n > 0 && sent < bytes.size(); sent += n)
        n = std::max<ssize_t>(0, send(fd, &bytes[sent], bytes.size() - sent, MSG_NOSIGNAL));
    std::string answer, chunk(16384, '\0');
    ssize_t n = 0;
    while ((n = recv(fd, chunk.data(), chunk.size(), 0)) > 0)
        answer.append(chunk, 0, n);
    if (closed)
        *closed = n == 0 || errno != EAGAIN;
    close(fd);
    return answer;
}
int statusOf(const std::string& raw) {
    return raw.compare(0, 5, "HTTP/") == 0 ? std::atoi(raw.c_str() + 9) : 0;
}
std::string post(const std::string& target, const std::string& body,
                 const std::string& fields = kAuth) {
    return "POST " + target + " HTTP/1.1\r\n" + fields +
           "Connection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           body;
}
std::string get(const std::string& target) {
    return "GET " + target + " HTTP/1.1\r\nConnection: close\r\n\r\n";
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
        std::string error;
        ASSERT_TRUE(server.start({{"127.0.0.1", "255.0.0.0"}}, 0, error)) << error;
    }
    // Each request gets its status (0: dropped unanswered), the connection ends, and nothing
    // from outside the web app is ever sent.
    void expectStatuses(const Rows& rows) {
        for (const auto& [request, expected] : rows) {
            bool closed = false;
            const std::string raw = ask(server.port(), request, "127.0.0.1", &closed);
            EXPECT_EQ(statusOf(raw), expected) << request.substr(0, 80) << "\n"
                                               << raw.substr(0, 200);
            EXPECT_TRUE(closed) << request.substr(0, 80);
            EXPECT_EQ(raw.find("outside-the-web-app"), std::string::npos) << request;
        }
    }
    vlm::test::TempDir base;
    const std::string web = base.path() + "/webapp", secret = base.path() + "/secret.txt";
    kelvane::EngineServer server{
        {}, web, false, {8 * 1024, 64 * 1024, std::chrono::milliseconds(500)}};
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
            const std::string raw = ask(server.port(), post(target, body, field));
            EXPECT_EQ(statusOf(raw), expected) << target << " " << field;
            EXPECT_EQ(raw.find("WWW-Authenticate: Basic ") != std::string::npos, expected == 401);
            EXPECT_EQ(raw.find("Plugins") != std::string::npos, expected == 200 && body != "[]");
        }
    expectStatuses({{get("/"), 200}, {post("/index.html", "{}", ""), 401}});
}

// Refused requests: oversized headers and bodies, bad chunking, malformed requests and control
// bodies, a request never finished; the server serves on with its filters unchanged.
TEST_F(EngineServer, RefusedRequests) {
    const std::string big(9 * 1024, 'a'),
        filters = "/set_interface_filters",
        chunked = "POST /get HTTP/1.1\r\n" + kAuth + "Transfer-Encoding: chunked\r\n\r\n";
    std::string fields;
    for (int i = 0; i < 600; ++i)
        fields += "X-Field-" + std::to_string(i) + ": value\r\n";
    // clang-format off
    expectStatuses({
        {"GET / HTTP/1.1\r\nX-Big: " + big + "\r\n\r\n", 431}, {"GET / HTTP/1.1\r\n" + fields + "\r\n", 431},
        {"GET /" + big + " HTTP/1.1\r\n\r\n", 431}, {"GET / HTTP/1.1\r\nConnection: close\r\nX: " + big.substr(3000) + "\r\n\r\n", 200},
        {"POST /get HTTP/1.1\r\n" + kAuth + "Content-Length: 65537\r\n\r\n", 413}, {chunked + "10001\r\n", 413},
        {chunked + "8000\r\n" + std::string(0x8000, 'a') + "\r\n8001\r\n", 413}, {chunked + "zz\r\n\r\n", 400},
        {chunked + "1;" + std::string(30000, 'a'), 400},
        {"GARBAGE\r\n\r\n", 400}, {post("/get", std::string(60000, '[')), 400}, {post("/get", R"({"path": "$"})"), 400},
        {post("/get", R"({"Path": "$.Config.Nothing"})"), 404}, {post(filters, R"([{"Ip": "::1", "Mask": "ffff::"}])"), 400},
        {post("/nothing", "{}"), 404}, {"PUT /get HTTP/1.1\r\n" + kAuth + "\r\n", 405}, {"GET / HTTP/1.1\r\n", 0},
    });
    // clang-format on
    EXPECT_NE(ask(server.port(), post("/get", R"({"Path": "$.Engine.InterfaceFilters"})"))
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
        {"/i%2epng", "i.png", "image/png"}, {"/%252e%252e/in.txt", "%2e%2e/in.txt", "text/plain"}};
    // clang-format on
    for (const auto& [target, body, type] : served) {
        const std::string raw = ask(server.port(), get(target));
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
    expectStatuses(refused);
    const std::string head =
        ask(server.port(), "HEAD /app.js HTTP/1.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(head.substr(head.find("Content-Length: ")), "Content-Length: 6\r\n\r\n");
}

// The library's life as the engine child lives it: filters checked, the document, the DNS-SD
// announcement, filters applied at once, a taken port, stop, start again.
TEST(Engine, Lifecycle) {
    if (unshare(CLONE_NEWUTS) != 0)
        GTEST_SKIP() << "needs root: the announced name comes from a host name of the test's own";
    const auto& fake = fake_dnssd::control::get();
    vlm::test::TempDir common, appData;
    const std::string plugins = common.path() + "/Corvane Technologies/Velmor/Plugins";
    fs::create_directories(plugins);
    for (const char* name : {"Delta_4.2.so", "<b>.so", "notes.txt"})
        vlm::test::writeFile(plugins + "/" + name, "");
    const unsigned short port = vlm::test::freeLoopbackPort();
    const std::string portText = std::to_string(port);
    setenv("VELMOR_COMMON_APPDATA", common.path().c_str(), 1);
    setenv("APPDATA", appData.path().c_str(), 1);
    setenv("VELMOR_ENGINE_PORT", portText.c_str(), 1);
    for (const char* bad : {"not-an-address", "::1", "300.1.1.1"})
        EXPECT_NE(KLV_AddInterfaceFilter(bad, "255.0.0.0"), 0) << bad;
    EXPECT_NE(KLV_AddInterfaceFilter("127.0.0.1", nullptr), 0);
    KLV_AddInterfaceFilter("192.0.2.1", "255.255.255.0");  // never on this machine: skipped
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
    sethostname("studio-7.example", 16);
    ASSERT_EQ(KLV_Initialize(-1, 0, 3), 0);
    EXPECT_EQ(fake.last("DNSServiceRegister"),
              "8 0 _velmor_studio-7 _http._tcp,_ravenna (null) (null) " + portText +
                  " 086d61737465723a31");    // "master:1"
    EXPECT_NE(KLV_Initialize(-1, 0, 1), 0);  // already running
    const std::string whole = ask(port, post("/get", R"({"Path":"$"})"));
    // clang-format off
    for (const std::string& part : std::vector<std::string>{
             R"("Plugins":[{"Name":"<b>","Major":1,"Minor":0},{"Name":"Delta","Major":4,"Minor":2}])",
             R"("PluginDirectory":[")" + plugins + R"(",")" + appData.path() + "/Corvane Technologies/velmor/plugins\"]",
             R"("Master":true,"Port":)" + portText, R"("InterfaceFilters":[{"Ip":"192.0.2.1")"})
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
    EXPECT_EQ(fake.open_count("DNSServiceRegister"), 0);
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
    // The name stays under 64 bytes, never with half a UTF-8 character at its end.
    const std::string longName = std::string(54, 'x') + "\xc3\xa9" + "y";
    sethostname(longName.data(), longName.size());
    ASSERT_EQ(KLV_Initialize(-1, 0, 1), 0);
    EXPECT_EQ(fake.last("DNSServiceRegister"), "8 0 _velmor_" + std::string(54, 'x') +
                                                   " _http._tcp,_ravenna (null) (null) " +
                                                   portText + " ");
    EXPECT_NE(ask(port, post("/get", R"({"Path":"$.Engine"})"))
                  .find(R"("Master":false,"Port":)" + portText +
                        R"(,"InterfaceFilters":[{"Ip":"127.0.0.1","Mask":"255.0.0.0"}]})"),
              std::string::npos);
    KLV_Uninitialize();
}

}  // namespace
