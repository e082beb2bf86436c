#include <atomic>
#include <thread>

#include "KelvaneFixture.h"

namespace {

using namespace std::chrono_literals;
using kelvane::test::EngineServerFixture;
using kelvane::test::parseJson;

class ControlRequests : public EngineServerFixture {
protected:
    void SetUp() override {
        vlm::test::writeFile(plugins.file("Alpha_2.5.so"), "");
        vlm::test::writeFile(plugins.file("Beta.dll"), "");
        vlm::test::writeFile(plugins.file("notes.txt"), "");
        startServer();
    }
};

TEST_F(ControlRequests, NeedTheEngineCredentials) {
    for (const char* target : {"/get", "/set_interface_filters"}) {
        for (const char* credentials : {"", "anon:wrong", "admin:anon", "anon:anon2", "anon"}) {
            auto response = post(target, R"({"Path": "$"})", credentials);
            EXPECT_EQ(response.status, 401) << target << " " << credentials;
            EXPECT_EQ(response.headers["www-authenticate"].compare(0, 6, "Basic "), 0)
                << target << " " << credentials;
            EXPECT_EQ(response.body.find("Plugins"), std::string::npos);
        }
    }
}

TEST_F(ControlRequests, OtherSchemesAreRefused) {
    for (const char* field : {"Bearer YW5vbjphbm9u", "YW5vbjphbm9u", "Basic", "Basic YW5vbjph"}) {
        auto raw = kelvane::test::rawExchange(
            port, "POST /get HTTP/1.1\r\nHost: x\r\nConnection: close\r\nAuthorization: " +
                      std::string(field) + "\r\nContent-Length: 13\r\n\r\n{\"Path\": \"$\"}");
        EXPECT_EQ(kelvane::test::statusOf(raw), 401) << field;
    }
    // The scheme name is case-insensitive.
    auto raw = kelvane::test::rawExchange(
        port,
        "POST /get HTTP/1.1\r\nHost: x\r\nConnection: close\r\nAuthorization: basic "
        "YW5vbjphbm9u\r\nContent-Length: 13\r\n\r\n{\"Path\": \"$\"}");
    EXPECT_EQ(kelvane::test::statusOf(raw), 200);
}

TEST_F(ControlRequests, WholeDocumentListsPluginsAndTheirFolder) {
    auto response = post("/get", R"({"Path": "$"})");
    ASSERT_EQ(response.status, 200);
    EXPECT_EQ(response.headers["content-type"], "application/json");
    auto document = parseJson(response.body);
    ASSERT_TRUE(document.IsObject()) << response.body;
    const auto& config = document["Config"];
    ASSERT_TRUE(config.IsObject());
    const auto& list = config["Plugins"];
    ASSERT_TRUE(list.IsArray());
    ASSERT_EQ(list.Size(), 2u) << response.body;
    EXPECT_STREQ(list[0]["Name"].GetString(), "Alpha");
    EXPECT_EQ(list[0]["Major"].GetInt(), 2);
    EXPECT_EQ(list[0]["Minor"].GetInt(), 5);
    EXPECT_STREQ(list[1]["Name"].GetString(), "Beta");
    EXPECT_EQ(list[1]["Major"].GetInt(), 1);
    EXPECT_EQ(list[1]["Minor"].GetInt(), 0);
    const auto& folders = config["PluginDirectory"];
    ASSERT_TRUE(folders.IsArray());
    ASSERT_EQ(folders.Size(), 1u);
    EXPECT_EQ(folders[0].GetString(), plugins.path());
    EXPECT_EQ(document["Engine"]["Port"].GetInt(), port);
    EXPECT_FALSE(document["Engine"]["Master"].GetBool());
}

TEST_F(ControlRequests, PartsOfTheDocument) {
    auto whole = parseJson(post("/get", R"({"Path": "$"})").body);
    for (const char* path : {"$.Config.Plugins", "Config/Plugins", "/Config/Plugins"}) {
        auto response = post("/get", std::string(R"({"Path": ")") + path + "\"}");
        ASSERT_EQ(response.status, 200) << path;
        EXPECT_TRUE(parseJson(response.body) == whole["Config"]["Plugins"]) << path;
    }
    auto folders = post("/get", R"({"Path": "$.Config.PluginDirectory"})");
    ASSERT_EQ(folders.status, 200);
    EXPECT_TRUE(parseJson(folders.body) == whole["Config"]["PluginDirectory"]);
    EXPECT_EQ(post("/get", R"({"Path": "$.Config.Nothing"})").status, 404);
}

TEST_F(ControlRequests, BodiesWithoutAPathAreRefused) {
    for (const char* body : {"", "not json", "{}", "[]", R"({"Path": 5})", R"({"path": "$"})",
                             R"({"Path": "$")", "\"$\"", R"({"Path": null})"}) {
        auto response = post("/get", body);
        EXPECT_GE(response.status, 400) << body;
        EXPECT_LT(response.status, 500) << body;
    }
    // The server is still well after them.
    EXPECT_EQ(post("/get", R"({"Path": "$"})").status, 200);
}

TEST_F(ControlRequests, DeeplyNestedBodiesAreRefusedWithoutHarm) {
    // As deep as the body limit allows: the parser must not recurse once per level.
    std::string arrays(60000, '[');
    std::string objects;
    for (int i = 0; i < 8000; ++i)
        objects += "{\"a\":";
    for (const char* target : {"/get", "/set_interface_filters"}) {
        for (const std::string& body :
             {arrays, objects, std::string(30000, '[') + std::string(30000, ']')}) {
            auto response = post(target, body);
            EXPECT_EQ(response.status, 400) << target;
        }
    }
    EXPECT_EQ(post("/get", R"({"Path": "$"})").status, 200);
}

TEST_F(ControlRequests, SetInterfaceFiltersAnswersTheFiltersInForce) {
    auto response = post("/set_interface_filters",
                         R"([{"Ip": "10.1.2.3", "Mask": "255.0.0.0"},
                             {"Ip": "192.168.7.9", "Mask": "255.255.255.0"}])");
    ASSERT_EQ(response.status, 200) << response.body;
    auto inForce = parseJson(response.body);
    ASSERT_TRUE(inForce.IsArray()) << response.body;
    ASSERT_EQ(inForce.Size(), 2u);
    EXPECT_STREQ(inForce[0]["Ip"].GetString(), "10.1.2.3");
    EXPECT_STREQ(inForce[0]["Mask"].GetString(), "255.0.0.0");
    EXPECT_STREQ(inForce[1]["Ip"].GetString(), "192.168.7.9");
    EXPECT_STREQ(inForce[1]["Mask"].GetString(), "255.255.255.0");
    auto engine = parseJson(post("/get", R"({"Path": "$.Engine.InterfaceFilters"})").body);
    EXPECT_TRUE(engine == inForce);

    auto none = post("/set_interface_filters", "[]");
    EXPECT_EQ(none.status, 200);
    EXPECT_EQ(none.body, "[]");
}

TEST_F(ControlRequests, BadFilterBodiesChangeNothing) {
    ASSERT_EQ(post("/set_interface_filters", R"([{"Ip": "10.0.0.1", "Mask": "255.0.0.0"}])").status,
              200);
    for (const char* body :
         {"", "nonsense", "{}", R"({"Ip": "10.0.0.2", "Mask": "255.0.0.0"})", "[1]",
          R"([{"Ip": "10.0.0.2"}])", R"([{"Mask": "255.0.0.0"}])",
          R"([{"Ip": "300.0.0.2", "Mask": "255.0.0.0"}])", R"([{"Ip": "10.0.0.2", "Mask": 8}])",
          R"([{"Ip": "::1", "Mask": "ffff::"}])", R"([{"Ip": "10.0.0.2", "Mask": "255.0.0.0"},)"}) {
        EXPECT_EQ(post("/set_interface_filters", body).status, 400) << body;
    }
    auto engine = parseJson(post("/get", R"({"Path": "$.Engine.InterfaceFilters"})").body);
    ASSERT_TRUE(engine.IsArray());
    ASSERT_EQ(engine.Size(), 1u);
    EXPECT_STREQ(engine[0]["Ip"].GetString(), "10.0.0.1");
}

TEST_F(ControlRequests, UnknownRequestsAndMethods) {
    EXPECT_EQ(post("/nothing", "{}").status, 404);
    auto put = vlm::test::httpRequest("PUT", port, "/get", {}, "anon:anon");
    EXPECT_EQ(put.status, 405);
    EXPECT_EQ(put.headers["allow"], "GET, HEAD, POST");
}

TEST_F(ControlRequests, KeepAliveServesRequestsInTurn) {
    kelvane::test::RawConnection connection(port);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(connection.send(kelvane::test::postRequest("/get", R"({"Path": "$"})", true)));
        auto raw = connection.receiveResponse(5s);
        EXPECT_EQ(kelvane::test::statusOf(raw), 200) << raw;
        EXPECT_TRUE(parseJson(kelvane::test::bodyOf(raw)).IsObject());
    }
}

TEST_F(ControlRequests, MasterShowsInTheDocument) {
    server->stop();
    startServer({}, {}, true);
    auto document = parseJson(post("/get", R"({"Path": "$.Engine.Master"})").body);
    EXPECT_TRUE(document.IsBool() && document.GetBool());
}

TEST_F(ControlRequests, ManyClientsAtOnce) {
    // The first request sets libcurl up before the threads share it.
    ASSERT_EQ(post("/get", R"({"Path": "$"})").status, 200);
    constexpr int kThreads = 50;
    constexpr int kRequests = 20;
    std::atomic<int> ok{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < kThreads; ++t)
        clients.emplace_back([&, t] {
            for (int i = 0; i < kRequests; ++i) {
                auto response =
                    (t + i) % 4 == 0 ? get("/") : post("/get", R"({"Path": "$.Config.Plugins"})");
                if (response.status == 200 && !response.body.empty())
                    ++ok;
            }
        });
    for (auto& client : clients)
        client.join();
    EXPECT_EQ(ok.load(), kThreads * kRequests);
}

class EngineServerLifecycle : public EngineServerFixture {};

TEST_F(EngineServerLifecycle, TakenPortIsReported) {
    startServer();
    kelvane::EngineServer second({}, {}, false);
    std::string error;
    EXPECT_FALSE(second.start({{"127.0.0.1", "255.0.0.0"}}, port, error));
    EXPECT_NE(error.find(std::to_string(port)), std::string::npos) << error;
    EXPECT_EQ(post("/get", R"({"Path": "$"})").status, 200);
}

TEST_F(EngineServerLifecycle, AddressNotOnThisMachineIsSkipped) {
    server = std::make_unique<kelvane::EngineServer>(std::vector<std::string>{}, "", false);
    std::string error;
    // 192.0.2.0/24 is reserved for documentation: never an address of this machine.
    ASSERT_TRUE(
        server->start({{"192.0.2.1", "255.255.255.0"}, {"127.0.0.1", "255.0.0.0"}}, 0, error))
        << error;
    port = server->port();
    EXPECT_EQ(post("/get", R"({"Path": "$"})").status, 200);

    kelvane::EngineServer nowhere({}, {}, false);
    EXPECT_FALSE(nowhere.start({{"192.0.2.1", "255.255.255.0"}}, 0, error));
    EXPECT_FALSE(error.empty());
}

TEST_F(EngineServerLifecycle, StopsAtOnceWhateverItsClientsDo) {
    startServer();
    kelvane::test::RawConnection silent(port);
    kelvane::test::RawConnection half(port);
    ASSERT_TRUE(half.send("POST /get HTTP/1.1\r\nHost: x\r\nContent-Length: 50\r\n\r\n{\"Pa"));
    ASSERT_EQ(post("/get", R"({"Path": "$"})").status, 200);
    auto before = std::chrono::steady_clock::now();
    server->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
    silent.receiveAll(2s);
    EXPECT_TRUE(silent.closed());
    EXPECT_EQ(
        vlm::test::httpRequest("POST", port, "/get", R"({"Path": "$"})", "anon:anon", 1s).status,
        0);
}

TEST_F(EngineServerLifecycle, StartsAgainOnTheSamePort) {
    startServer();
    // A connection left in TIME_WAIT must not keep the port from being bound again.
    ASSERT_EQ(post("/get", R"({"Path": "$"})").status, 200);
    server->stop();
    std::string error;
    ASSERT_TRUE(server->start({{"127.0.0.1", "255.0.0.0"}}, port, error)) << error;
    EXPECT_EQ(server->port(), port);
    EXPECT_EQ(post("/get", R"({"Path": "$"})").status, 200);
}

}  // namespace
