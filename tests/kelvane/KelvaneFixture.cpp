#include "KelvaneFixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace kelvane::test {

RawConnection::RawConnection(unsigned short port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

RawConnection::~RawConnection() {
    if (fd_ >= 0)
        ::close(fd_);
}

bool RawConnection::send(const std::string& bytes) {
    std::size_t sent = 0;
    while (fd_ >= 0 && sent < bytes.size()) {
        ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += static_cast<std::size_t>(n);
    }
    return fd_ >= 0;
}

bool RawConnection::receiveSome(std::string& into, std::chrono::steady_clock::time_point deadline) {
    if (fd_ < 0 || closed_)
        return false;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
        return false;
    pollfd entry{fd_, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(left.count())) <= 0)
        return false;
    char chunk[16384];
    ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) {
        // An orderly close and a reset both end the exchange.
        closed_ = true;
        return false;
    }
    into.append(chunk, static_cast<std::size_t>(n));
    return true;
}

std::string RawConnection::receiveAll(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string data;
    while (receiveSome(data, deadline)) {
    }
    return data;
}

std::string RawConnection::receiveResponse(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string data;
    for (;;) {
        auto end = data.find("\r\n\r\n");
        if (end != std::string::npos) {
            std::size_t length = 0;
            auto field = data.find("\r\nContent-Length: ");
            if (field != std::string::npos && field < end)
                length = std::strtoul(data.c_str() + field + 18, nullptr, 10);
            if (data.size() >= end + 4 + length)
                return data;
        }
        if (!receiveSome(data, deadline))
            return data;
    }
}

int statusOf(const std::string& raw) {
    if (raw.compare(0, 5, "HTTP/") != 0)
        return 0;
    auto space = raw.find(' ');
    return space == std::string::npos ? 0 : std::atoi(raw.c_str() + space + 1);
}

std::string bodyOf(const std::string& raw) {
    auto end = raw.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : raw.substr(end + 4);
}

std::string rawExchange(unsigned short port, const std::string& request,
                        std::chrono::milliseconds timeout) {
    RawConnection connection(port);
    connection.send(request);
    return connection.receiveAll(timeout);
}

std::string getRequest(const std::string& target) {
    return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
}

std::string postRequest(const std::string& target, const std::string& body, bool keepAlive) {
    return "POST " + target +
           " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Basic YW5vbjphbm9u\r\n"
           "Content-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n" + (keepAlive ? "" : "Connection: close\r\n") +
           "\r\n" + body;
}

rapidjson::Document parseJson(const std::string& text) {
    rapidjson::Document document;
    document.Parse(text.c_str(), text.size());
    return document;
}

EngineServerFixture::~EngineServerFixture() {
    if (server)
        server->stop();
}

void EngineServerFixture::startServer(const std::string& webAppFolder, ServerLimits limits,
                                      bool master) {
    server = std::make_unique<EngineServer>(std::vector<std::string>{plugins.path()}, webAppFolder,
                                            master, limits);
    std::string error;
    ASSERT_TRUE(server->start({{"127.0.0.1", "255.0.0.0"}}, 0, error)) << error;
    port = server->port();
    ASSERT_NE(port, 0);
}

vlm::test::HttpResponse EngineServerFixture::post(const std::string& target,
                                                  const std::string& body,
                                                  const std::string& credentials) const {
    return vlm::test::httpRequest("POST", port, target, body, credentials);
}

vlm::test::HttpResponse EngineServerFixture::get(const std::string& target) const {
    return vlm::test::httpRequest("GET", port, target);
}

}  // namespace kelvane::test
