// The catalogue rules and the GET client, without a display.

#include <gtest/gtest.h>

#include <sstream>

#include "LoopbackHttpServer.h"
#include "TestSupport.h"
#include "plugins/Catalogue.h"
#include "plugins/HttpGet.h"

namespace {

using namespace vlm;
using test::LoopbackHttpServer;

std::string plugin(const std::string& name, const std::string& extra = {}) {
    return R"({"Name":")" + name + R"(","URL":"h:1/files/","Description":"About )" + name +
           R"(","Contact":"dev@example.org","Certification":"release","Major":2,"Minor":3)" +
           extra + "}";
}

// Parses text into entries; printed gets standard output then Qt's debug messages.
bool read(const std::string& text, CatalogueEntries& entries, std::string& printed) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const bool ok = readCatalogue(text, entries);
    printed = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    return ok;
}

// Every member as read, one line per plug-in printed, "Windows" optional, the required
// members' message, pictures only where "Name" is "Proxy", and file names that stay in the
// folder: one path component, judged by component ("a..b.dll" is fine).
TEST(Catalogue, MemberRules) {
    CatalogueEntries entries;
    std::string printed;
    ASSERT_TRUE(read(
        R"({"Plugins":[)" + plugin("p", R"(,"Windows":"a..b.dll")") + "," + plugin("q") + "," +
            plugin("evil", R"(,"Windows":"..\\evil.dll")") +
            R"(,{"Name":"bare"}],"Images":[)"
            R"({"Name":"p","Proxy":"p","Vendor":"Tessel","Product":"Box","PNG_URL":"h/b.png",)"
            R"("ICNS_URL":"h/b.icns"},{"Name":"Other","Proxy":"p","Vendor":"X","Product":"Y",)"
            R"("PNG_URL":"","ICNS_URL":""},{"Name":"q","Proxy":"q","Vendor":"..","Product":"/x",)"
            R"("PNG_URL":"","ICNS_URL":""}]})",
        entries, printed));
    const CatalogueEntry& p = entries.at("p");
    EXPECT_EQ(p.url + "|" + p.description + "|" + p.contact + "|" + p.windowsFile,
              "h:1/files/|About p|dev@example.org|a..b.dll");
    EXPECT_EQ(std::vector<int>({p.hasWindowsFile, p.stability, p.major, p.minor}),
              std::vector<int>({1, 2, 2, 3}));
    ASSERT_EQ(p.images.size(), 1u);
    const ImageRecord& image = p.images[0];
    EXPECT_EQ(image.vendor + "|" + image.product + "|" + image.pngUrl + "|" + image.icnsUrl,
              "Tessel|Box|h/b.png|h/b.icns");
    EXPECT_EQ(pictureName(image) + "|" + pictureName(entries.at("q").images.at(0)), "Tessel_Box|");
    EXPECT_FALSE(entries.at("q").hasWindowsFile || entries.at("evil").hasWindowsFile);
    EXPECT_EQ(entries.at("bare").stability, -1);
    for (const char* line : {"Plug-in evil: refused file name \"..\\evil.dll\"\n",
                             "<<<<PLUGIN>>>>> p - h:1/files/ - About p\n",
                             "member Description not found; please fix it!", "member URL not found",
                             "member Contact not found", "member Certification not found",
                             "member Major not found", "member Minor not found"})
        EXPECT_NE(printed.find(line), std::string::npos) << line;
    EXPECT_EQ(printed.find("member Windows"), std::string::npos);
    for (const char* name : {"proxy_tessel.dll", "a..b.dll", "proxy tessel-2.0.dll"})
        EXPECT_TRUE(isPlainFileName(name)) << name;
    for (const char* name : {"..", ".", "", "../evil.dll", "a/b.dll", "a\\b.dll", "C:evil.dll",
                             "/etc/evil.so", "\\\\server\\share.dll"})
        EXPECT_FALSE(isPlainFileName(name)) << name;
}

// What a broken or hostile catalogue server sends: a clear message, never a crash.
TEST(Catalogue, BadInputTable) {
    const std::string whole = R"({"Plugins":[)" + plugin("a") + R"(],"Images":[]})";
    const std::tuple<std::string, bool, std::size_t, const char*> cases[] = {
        {"<html>404</html>", false, 0,
         "Unable to parse Json document: Invalid value. -> corrupted (0)\n"},
        {whole.substr(0, whole.size() / 2), false, 0, "Unable to parse Json document: "},
        {std::string(100000, '[') + std::string(100000, ']'), false, 0, "corrupted"},
        {std::string(R"({"Plugins":[{"Name":"a)") + '\0' + R"(b"}],"Images":[]})", false, 0,
         "corrupted"},
        {whole + '\0' + "garbage", false, 0, "corrupted"},
        {R"({"Plugins":{"Name":"x"},"Images":7})", true, 0, "\"Plugins\" is not an array"},
        {R"({"Plugins":[3,{"Name":5,"Windows":7,"Major":"2"}],"Images":[1]})", true, 1,
         "not an object [Name]\n"},
        {"[1,2,3]", true, 0, "the document is not an object"},
    };
    for (const auto& [text, ok, count, message] : cases) {
        SCOPED_TRACE(text.substr(0, 40));
        CatalogueEntries entries;
        std::string printed;
        EXPECT_EQ(read(text, entries, printed), ok);
        EXPECT_EQ(entries.size(), count);
        EXPECT_NE(printed.find(message), std::string::npos) << printed;
        for (const auto& [name, entry] : entries)
            EXPECT_FALSE(entry.hasWindowsFile);
    }
}

// The request byte for byte (no port in "Host: "); any status is a document; a peer that never
// ends its head cannot grow the buffer for ever (a reset transfer: the download scenario).
TEST(HttpGet, RequestBytesAndServerBehaviours) {
    const std::string big(3 * 1024 * 1024 + 17, 'b');  // beyond one read buffer
    auto answer = [](const std::string& head, const std::string& block = {}) {
        return [=](LoopbackHttpServer::Socket& s, auto&) {
            boost::system::error_code error;
            boost::asio::write(s, boost::asio::buffer(head), error);
            while (!block.empty() && !error)  // for ever, until the client gives up
                boost::asio::write(s, boost::asio::buffer(block), error);
        };
    };
    const std::tuple<const char*, LoopbackHttpServer::Handler, bool, std::string> cases[] = {
        {"document", answer(LoopbackHttpServer::response(200, "{}")), true, "{}"},
        {"error page", nullptr, true, "no such path"},  // null: the server's 404
        {"close after head", answer("HTTP/1.0 200 OK\r\nContent-Length: 10\r\n\r\n"), true, ""},
        {"no header lines", answer("HTTP/1.0 200 OK\r\n\r\nbare"), true, "bare"},
        {"big body", answer(LoopbackHttpServer::response(200, big)), true, big},
        {"endless head", answer("HTTP/1.0 200 OK\r\n", "X: y\r\n"), false, ""},
        {"endless status", answer("", std::string(65536, 'x')), false, ""},
    };
    for (const auto& [name, handler, ok, expected] : cases) {
        SCOPED_TRACE(name);
        LoopbackHttpServer server;
        const std::string path = handler ? "/plugins.json" : "/x";
        server.handle(path, handler);
        std::ostringstream body;
        ASSERT_EQ(vlm::httpGet(server.host(), path, body), ok);
        EXPECT_TRUE(!ok || body.str() == expected) << body.str().size();
        EXPECT_EQ(server.requests().front(), "GET " + path +
                                                 " HTTP/1.0\r\nHost: 127.0.0.1\r\nAccept: "
                                                 "*/*\r\nConnection: close\r\n\r\n");
    }
    std::ostringstream body;
    const std::string refused = "127.0.0.1:" + std::to_string(vlm::test::freeLoopbackPort());
    EXPECT_FALSE(vlm::httpGet(refused, "/plugins.json", body));
    EXPECT_EQ(body.str(), "");
}

}  // namespace
