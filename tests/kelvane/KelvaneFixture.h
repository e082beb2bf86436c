#pragma once
// One engine web server on a loopback port the test learns, and a raw client for the bytes a
// well-behaved HTTP library would never send.

#include <gtest/gtest.h>

#include <rapidjson/document.h>
#include <chrono>
#include <memory>
#include <string>

#include "EngineServer.h"
#include "TestSupport.h"

namespace kelvane::test {

/// \brief A TCP connection to 127.0.0.1 that sends exactly the bytes it is given.
class RawConnection {
public:
    explicit RawConnection(unsigned short port);
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool connected() const { return fd_ >= 0; }
    /// False once the peer takes no more data.
    bool send(const std::string& bytes);
    /// What arrives until the peer closes or the time-out passes; closed() tells which.
    std::string receiveAll(std::chrono::milliseconds timeout);
    /// One whole response (header and Content-Length body), leaving the connection open.
    std::string receiveResponse(std::chrono::milliseconds timeout);
    bool closed() const { return closed_; }

private:
    bool receiveSome(std::string& into, std::chrono::steady_clock::time_point deadline);

    int fd_ = -1;
    bool closed_ = false;
};

/// Status code of the response that starts the raw bytes; 0 when there is none.
int statusOf(const std::string& raw);

/// Body of the response that starts the raw bytes.
std::string bodyOf(const std::string& raw);

/// One request over a fresh connection: everything the server sent until it closed.
std::string rawExchange(unsigned short port, const std::string& request,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5));

/// A GET of target exactly as written, asking the server to close afterwards.
std::string getRequest(const std::string& target);

/// A POST with the engine's credentials and the body as given.
std::string postRequest(const std::string& target, const std::string& body, bool keepAlive = false);

rapidjson::Document parseJson(const std::string& text);

class EngineServerFixture : public ::testing::Test {
protected:
    ~EngineServerFixture() override;

    /// Serves on 127.0.0.1 from a port the system picks; the web-app folder may be missing.
    void startServer(const std::string& webAppFolder = {}, ServerLimits limits = {},
                     bool master = false);

    vlm::test::HttpResponse post(const std::string& target, const std::string& body,
                                 const std::string& credentials = "anon:anon") const;
    vlm::test::HttpResponse get(const std::string& target) const;

    vlm::test::TempDir plugins;
    vlm::test::TempDir base;
    std::unique_ptr<EngineServer> server;
    unsigned short port = 0;
};

}  // namespace kelvane::test
