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

const std::string kAuth = "Authorization: Basic YW5vbjphbm9u\r\n";

// What arrives until the server closes, ending in " (open)" if it stays silent for 1 s instead.
std::string ask(unsigned short port, const std::string& bytes, const char* host = "127.0.0.1") {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval wait{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    sockaddr_in address{AF_INET, htons(port), {inet_addr(host)}, {}};
    connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);  // blocking: all, unless refused
    std::string answer, chunk(16384, '\0');
    ssize_t n = 0;
    while ((n = recv(fd, chunk.data(), chunk.size(), 0)) > 0)
        answer.append(chunk, 0, n);
    close(fd);
    return n < 0 && errno == EAGAIN ? answer + " (open)" : answer;
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

// Every request gets its status (0: dropped unanswered) and an answer holding the text given;
// the connection ends; a 401, and only a 401, asks for credentials.
TEST(EngineServer, Requests) {
    vlm::test::TempDir base;
    const std::string web = base.path() + "/webapp", secret = base.path() + "/secret.txt";
    for (const std::string name : {"sub/index.html", "%2e%2e/in.txt", "index.html", "app.js"}) {
        std::filesystem::create_directories(std::filesystem::path(web + "/" + name).parent_path());
        vlm::test::writeFile(web + "/" + name, name);
    }
    vlm::test::writeFile(secret, "outside-the-web-app");
    std::filesystem::create_symlink(secret, web + "/link.txt");
    std::filesystem::create_symlink(web + "/app.js", web + "/alias.js");
    kelvane::EngineServer server({}, web, false, {8192, 65536, std::chrono::milliseconds(500)});
    std::string error;
    ASSERT_TRUE(server.start({{"127.0.0.1", "255.0.0.0"}}, 0, error)) << error;
    // clang-format off
    const std::string big(9 * 1024, 'a'), filters = "/set_interface_filters", chunked = "POST /get HTTP/1.1\r\n" + kAuth + "Transfer-Encoding: chunked\r\n\r\n";
    std::vector<std::tuple<std::string, int, std::string>> rows = {  // request, status, held text
        // The web app needs no credentials and serves its files (links inside it too) with their types.
        {get("/"), 200, "Content-Type: text/html; charset=utf-8"}, {get("/sub/"), 200, "\r\n\r\nsub/index.html"},
        {get("/app.js?v=3"), 200, "Content-Type: application/javascript"}, {get("/alias.js"), 200, "\r\n\r\napp.js"},
        {get("/%252e%252e/in.tx%74"), 200, "\r\n\r\n%2e%2e/in.txt"}, {"HEAD /app.js HTTP/1.1\r\nConnection: close\r\n\r\n", 200, "Content-Length: 6\r\n"},
        {post("/index.html", "{}", ""), 401, ""}, {post(filters, "[]", ""), 401, ""},
        // Oversized headers and bodies, bad chunking, malformed requests and control bodies, a request never finished.
        {"GET / HTTP/1.1\r\nX-Big: " + big + "\r\n\r\n", 431, ""}, {"GET /" + big + " HTTP/1.1\r\n\r\n", 431, ""},
        {"GET / HTTP/1.1\r\nConnection: close\r\nX: " + big.substr(3000) + "\r\n\r\n", 200, ""},
        {"POST /get HTTP/1.1\r\n" + kAuth + "Content-Length: 65537\r\n\r\n", 413, ""}, {chunked + "10001\r\n", 413, ""},
        {chunked + "8000\r\n" + std::string(0x8000, 'a') + "\r\n8001\r\n", 413, ""}, {chunked + "zz\r\n\r\n", 400, ""},
        {chunked + "1;" + std::string(30000, 'a'), 400, ""}, {"GARBAGE\r\n\r\n", 400, ""}, {"GET / HTTP/1.1\r\n", 0, ""},
        {post("/get", std::string(60000, '[')), 400, ""}, {post("/get", R"({"path": "$"})"), 400, ""},
        {post("/get", R"({"Path": "$.Config.Nothing"})"), 404, ""}, {post(filters, R"([{"Ip": "::1", "Mask": "ffff::"}])"), 400, ""},
        {post("/nothing", "{}"), 404, ""}, {"PUT /get HTTP/1.1\r\n" + kAuth + "\r\n", 405, ""}};
    // Control requests need Basic anon:anon, the scheme in any case.
    for (const auto& [field, status] : std::vector<std::pair<std::string, int>>{
             {"", 401}, {kAuth, 200}, {"Authorization: basic YW5vbjphbm9u\r\n", 200},
             {"Authorization: Basic YW5vbjp3cm9uZw==\r\n", 401}, {"Authorization: Basic YWRtaW46YW5vbg==\r\n", 401},
             {"Authorization: Bearer YW5vbjphbm9u\r\n", 401}, {"Authorization: YW5vbjphbm9u\r\n", 401},
             {"Authorization: Basic\r\n", 401}, {"Authorization: Basic YW5vbjph\r\n", 401}})
        rows.emplace_back(post("/get", R"({"Path":"$"})", field), status, status == 200 ? "Plugins" : "");
    // Never a file whose real path is outside the folder, nor a name cut short by an encoded NUL.
    for (const std::string& target : std::vector<std::string>{
             "/../secret.txt", "/sub/../../secret.txt", "/%2e%2e/secret.txt", "/%2E%2E%2Fsecret.txt",
             "/..%2fsecret.txt", "/.%2e/secret.txt", "/sub/%2e%2e%2f%2e%2e%2fsecret.txt", "/%252e%252e%252fsecret.txt",
             "/..\\secret.txt", "/%5C..%5Csecret.txt", "\\..\\secret.txt", "/../secret.txt%00.html",
             "/index.html%00/../../secret.txt", "/%00", "/" + secret, "//" + secret, "/%2f" + secret.substr(1),
             secret, "http://127.0.0.1" + secret, "/link.txt", "/%c0%ae%c0%ae/secret.txt",
             "/..;/secret.txt", "/.../secret.txt", "/%", "/%2", "/%zz", "/sub", "/missing.html", "/app.js%00.txt"})
        rows.emplace_back(get(target), 404, "");
    // clang-format on
    for (const auto& [request, status, held] : rows) {
        const std::string raw = ask(server.port(), request);
        EXPECT_EQ(std::atoi(raw.c_str() + std::min<std::size_t>(raw.size(), 9)), status)
            << request.substr(0, 80) << "\n"
            << raw;
        EXPECT_NE(raw.find(held), std::string::npos) << request.substr(0, 80) << "\n" << raw;
        EXPECT_EQ(raw.find(" (open)"), std::string::npos) << request.substr(0, 80);
        EXPECT_EQ(raw.find("WWW-Authenticate: Basic ") != std::string::npos, status == 401);
    }
}

// The library's life as the engine child lives it: filters checked, the document and the
// DNS-SD announcement, filters applied at once, stop, start again.
TEST(Engine, Lifecycle) {
    if (unshare(CLONE_NEWUTS) != 0)
        GTEST_SKIP() << "needs root: the announced name comes from a host name of the test's own";
    vlm::test::TempDir common, appData;
    const std::string plugins = common.path() + "/Corvane Technologies/Velmor/Plugins";
    std::filesystem::create_directories(plugins);
    for (const char* name : {"Delta_4.2.so", "<b>.so", "notes.txt"})
        vlm::test::writeFile(plugins + "/" + name, "");
    const unsigned short port = vlm::test::freeLoopbackPort();
    const std::string portText = std::to_string(port), all = R"({"Path":"$"})";
    setenv("VELMOR_COMMON_APPDATA", common.path().c_str(), 1);
    setenv("APPDATA", appData.path().c_str(), 1);
    setenv("VELMOR_ENGINE_PORT", portText.c_str(), 1);
    auto call = [&](const char* target, const std::string& body, const char* host = "127.0.0.1") {
        const std::string raw = ask(port, post(target, body), host);  // "<status> <body>"
        return raw.empty() ? "0 " : raw.substr(9, 4) + raw.substr(raw.find("\r\n\r\n") + 4);
    };
    KLV_AddInterfaceFilter("::1", "255.0.0.0");            // refused
    KLV_AddInterfaceFilter("127.0.0.2", nullptr);          // refused
    KLV_AddInterfaceFilter("192.0.2.1", "255.255.255.0");  // skipped at start: not on this machine
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
    const auto& fake = fake_dnssd::control::get();
    const std::string registered = " _http._tcp,_ravenna (null) (null) " + portText + " ";
    sethostname("studio-7.example", 16);
    ASSERT_EQ(KLV_Initialize(-1, 0, 3), 0);
    EXPECT_EQ(fake.last("DNSServiceRegister"),
              "8 0 _velmor_studio-7" + registered + "086d61737465723a31");
    EXPECT_NE(KLV_Initialize(-1, 0, 1), 0);  // already running
    // clang-format off
    EXPECT_EQ(call("/get", all), R"(200 {"Config":{"Plugins":[{"Name":"<b>","Major":1,"Minor":0},{"Name":"Delta","Major":4,"Minor":2}],"PluginDirectory":[")" +
              plugins + R"(",")" + appData.path() + R"(/Corvane Technologies/velmor/plugins"]},"Engine":{"Master":true,"Port":)" + portText +
              R"(,"InterfaceFilters":[{"Ip":"192.0.2.1","Mask":"255.255.255.0"},{"Ip":"127.0.0.1","Mask":"255.0.0.0"}]}})");
    // clang-format on
    EXPECT_NE(ask(port, get("/")).find("<td>&lt;b&gt;</td>"), std::string::npos);  // status page
    // Only another machine's address (an agent sends its own): listening on all, never on none.
    const std::string elsewhere = R"([{"Ip":"192.0.2.1","Mask":"255.255.255.0"}])";
    EXPECT_EQ(call("/set_interface_filters", elsewhere), "200 " + elsewhere);
    EXPECT_EQ(call("/get", all, "127.0.0.3").substr(0, 4), "200 ");
    KLV_Uninitialize();
    EXPECT_TRUE(fake.wait_closed(1000));  // the announcement withdrawn
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");
    KLV_AddInterfaceFilter("127.0.0.1", "255.0.0.0");  // the same filters again, kept once
    // The name stays under 64 bytes, never with half a UTF-8 character at its end.
    sethostname((std::string(54, 'x') + "\xc3\xa9y").c_str(), 57);
    ASSERT_EQ(KLV_Initialize(-1, 0, 1), 0);
    EXPECT_EQ(fake.last("DNSServiceRegister"), "8 0 _velmor_" + std::string(54, 'x') + registered);
    EXPECT_EQ(call("/get", R"({"Path":"$.Engine"})"),
              R"(200 {"Master":false,"Port":)" + portText +
                  R"(,"InterfaceFilters":[{"Ip":"127.0.0.1","Mask":"255.0.0.0"}]})");
    KLV_Uninitialize();
}

}  // namespace
