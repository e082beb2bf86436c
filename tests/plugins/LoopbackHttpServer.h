#pragma once
// A small HTTP server on 127.0.0.1 whose answers a test scripts per path, down to the bytes.

#include <boost/asio.hpp>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vlm::test {

/// \brief Serves each connection on a thread of its own; unknown paths get a 404 HTML page.
class LoopbackHttpServer {
public:
    using Socket = boost::asio::ip::tcp::socket;
    /// Answers one request; the connection is closed when it returns.
    using Handler = std::function<void(Socket& socket, const std::string& request)>;

    LoopbackHttpServer();
    ~LoopbackHttpServer();

    /// A 200 answer with this body and a Content-Length.
    void serve(const std::string& path, const std::string& body);
    void handle(const std::string& path, Handler handler);
    /// "127.0.0.1:<port>", as VELMOR_CATALOGUE_HOST and catalogue addresses take it.
    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
    /// Every request head received, in order.
    std::vector<std::string> requests();

    static void writeAll(Socket& socket, const std::string& bytes);
    static std::string response(int status, const std::string& body);

private:
    boost::asio::io_context context_;
    boost::asio::ip::tcp::acceptor acceptor_;
    unsigned short port_ = 0;
    std::mutex mutex_;
    std::map<std::string, Handler> handlers_;
    std::vector<std::string> requests_;
    std::vector<std::thread> threads_;
    bool stopping_ = false;
    std::thread acceptThread_;
};

}  // namespace vlm::test
