#include <unistd.h>

#include <filesystem>

#include "KelvaneFixture.h"

namespace {

using namespace std::chrono_literals;
using kelvane::test::EngineServerFixture;
using kelvane::test::getRequest;
using kelvane::test::rawExchange;
using kelvane::test::statusOf;

constexpr const char* kSecret = "outside-the-web-app";

class WebApp : public EngineServerFixture {
protected:
    void SetUp() override {
        namespace fs = std::filesystem;
        fs::create_directories(folder + "/sub");
        fs::create_directories(folder + "/%2e%2e");
        vlm::test::writeFile(folder + "/index.html", "<html>web app</html>");
        vlm::test::writeFile(folder + "/app.js", "console.log(1);");
        vlm::test::writeFile(folder + "/style.css", "body{}");
        vlm::test::writeFile(folder + "/data.json", "{}");
        vlm::test::writeFile(folder + "/logo.svg", "<svg/>");
        vlm::test::writeFile(folder + "/icon.png", std::string("\x89PNG\r\n\x1a\n", 8));
        vlm::test::writeFile(folder + "/blob.bin", "bytes");
        vlm::test::writeFile(folder + "/sub/index.html", "<html>sub</html>");
        vlm::test::writeFile(folder + "/%2e%2e/secret.txt", "inside, oddly named");
        vlm::test::writeFile(secret, kSecret);
        fs::create_symlink(secret, folder + "/link.txt");
        fs::create_directory_symlink(base.path(), folder + "/up");
        fs::create_symlink(folder + "/app.js", folder + "/alias.js");
        startServer(folder);
    }

    /// Not served, and nothing of the outside file in the answer.
    void expectRefused(const std::string& target) {
        auto raw = rawExchange(port, getRequest(target));
        EXPECT_NE(statusOf(raw), 200) << target << "\n" << raw;
        EXPECT_EQ(raw.find(kSecret), std::string::npos) << target;
    }

    std::string folder = base.path() + "/webapp";
    std::string secret = base.path() + "/secret.txt";
};

TEST_F(WebApp, ServesFilesWithoutCredentials) {
    auto index = get("/");
    EXPECT_EQ(index.status, 200);
    EXPECT_EQ(index.body, "<html>web app</html>");
    EXPECT_EQ(index.headers["content-type"], "text/html; charset=utf-8");
    EXPECT_EQ(get("/index.html").body, index.body);
    EXPECT_EQ(get("/sub/").body, "<html>sub</html>");
    EXPECT_EQ(get("/app.js?v=3").body, "console.log(1);");
    // A link that stays inside the folder is an ordinary file.
    EXPECT_EQ(get("/alias.js").body, "console.log(1);");
}

TEST_F(WebApp, ContentTypesFollowTheFileName) {
    const std::pair<const char*, const char*> expected[] = {
        {"/app.js", "application/javascript"},
        {"/style.css", "text/css; charset=utf-8"},
        {"/data.json", "application/json"},
        {"/logo.svg", "image/svg+xml"},
        {"/icon.png", "image/png"},
        {"/blob.bin", "application/octet-stream"},
        {"/sub/index.html", "text/html; charset=utf-8"}};
    for (const auto& [target, type] : expected) {
        auto response = get(target);
        EXPECT_EQ(response.status, 200) << target;
        EXPECT_EQ(response.headers["content-type"], type) << target;
    }
    EXPECT_EQ(get("/icon.png").body.size(), 8u);
}

TEST_F(WebApp, HeadGivesTheLengthOnly) {
    auto raw = rawExchange(port, "HEAD /app.js HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(statusOf(raw), 200);
    EXPECT_NE(raw.find("Content-Length: 15\r\n"), std::string::npos) << raw;
    EXPECT_EQ(kelvane::test::bodyOf(raw), "");
}

TEST_F(WebApp, MissingFilesAndFoldersAre404) {
    EXPECT_EQ(get("/missing.html").status, 404);
    EXPECT_EQ(get("/sub").status, 404);
    EXPECT_EQ(get("/nothing/").status, 404);
}

TEST_F(WebApp, NeverServesAFileOutsideTheFolder) {
    const std::string outside = secret;
    for (const std::string& target : {
             std::string("/../secret.txt"),
             std::string("/sub/../../secret.txt"),
             std::string("/%2e%2e/secret.txt"),
             std::string("/%2E%2E/secret.txt"),
             std::string("/%2E%2E%2Fsecret.txt"),
             std::string("/..%2fsecret.txt"),
             std::string("/.%2e/secret.txt"),
             std::string("/sub/%2e%2e%2f%2e%2e%2fsecret.txt"),
             std::string("/%252e%252e%252fsecret.txt"),
             std::string("/%25252e%25252e/secret.txt"),
             std::string("/..\\secret.txt"),
             std::string("/%5c..%5csecret.txt"),
             std::string("/%5C..%5Csecret.txt"),
             std::string("\\..\\secret.txt"),
             std::string("/../secret.txt%00.html"),
             std::string("/index.html%00/../../secret.txt"),
             std::string("/%00"),
             "/" + outside,
             "//" + outside,
             "/%2f" + outside.substr(1),
             outside,
             "http://127.0.0.1" + outside,
             std::string("/link.txt"),
             std::string("/up/secret.txt"),
             std::string("/up/webapp/../secret.txt"),
             std::string("/%c0%ae%c0%ae/secret.txt"),
             std::string("/..;/secret.txt"),
             std::string("/.../secret.txt"),
             std::string("/%"),
             std::string("/%2"),
             std::string("/%zz"),
         })
        expectRefused(target);
}

TEST_F(WebApp, DoubleEncodingNamesALiteralFile) {
    // "%252e%252e" decodes once, to a folder really called "%2e%2e" inside the web app.
    auto response = get("/%252e%252e/secret.txt");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "inside, oddly named");
}

TEST_F(WebApp, ControlRequestsStillNeedCredentials) {
    EXPECT_EQ(vlm::test::httpRequest("POST", port, "/index.html", "{}").status, 401);
    EXPECT_EQ(get("/get").status, 404);
}

class StatusPage : public EngineServerFixture {};

TEST_F(StatusPage, StandsInWhenTheFolderIsMissing) {
    vlm::test::writeFile(plugins.file("Gamma_3.1.so"), "");
    vlm::test::writeFile(plugins.file("<b>.so"), "");
    startServer(base.path() + "/no-such-folder");
    auto page = get("/");
    ASSERT_EQ(page.status, 200);
    EXPECT_EQ(page.headers["content-type"], "text/html; charset=utf-8");
    EXPECT_NE(page.body.find("VELMOR Engine"), std::string::npos) << page.body;
    EXPECT_NE(page.body.find(std::to_string(port)), std::string::npos);
    EXPECT_NE(page.body.find("Gamma"), std::string::npos);
    EXPECT_NE(page.body.find("3.1"), std::string::npos);
    // Plug-in names come from file names: never markup.
    EXPECT_EQ(page.body.find("<b>"), std::string::npos);
    EXPECT_NE(page.body.find("&lt;b&gt;"), std::string::npos);
    EXPECT_EQ(get("/index.html").body, page.body);
    EXPECT_EQ(get("/app.js").status, 404);
    EXPECT_EQ(get("/../secret.txt").status, 404);
}

TEST_F(StatusPage, AFileInPlaceOfTheFolderIsNoFolder) {
    vlm::test::writeFile(base.file("webapp"), "not a folder");
    startServer(base.file("webapp"));
    auto page = get("/");
    EXPECT_EQ(page.status, 200);
    EXPECT_NE(page.body.find("VELMOR Engine"), std::string::npos);
}

}  // namespace
