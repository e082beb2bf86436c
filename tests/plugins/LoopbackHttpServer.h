#pragma once
// A small HTTP server on 127.0.0.1 whose answers a test scripts per path, down to the bytes.

#include <sys/socket.h>

#include <boost/asio.hpp>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vlm::test {

/// \brief Answers one connection at a time; unknown paths (or a null handler) get a 404.
class LoopbackHttpServer {
public:
    using Socket = boost::asio::ip::tcp::socket;
    /// Answers one request; the connection is closed when it returns.
    using Handler = std::function<void(Socket& socket, const std::string& request)>;

    LoopbackHttpServer() : thread_([this] { run(); }) {}
    ~LoopbackHttpServer() {
        ::shutdown(acceptor_.native_handle(), SHUT_RDWR);  // closing would not wake the accept
        thread_.join();
    }

    void serve(const std::string& path, const std::string& body) {
        handle(path, [body](Socket& socket, auto&) { writeAll(socket, response(200, body)); });
    }
    void handle(const std::string& path, Handler handler) {
        std::lock_guard<std::mutex> lock(mutex_);
        handlers_[path] = std::move(handler);
    }
    /// "127.0.0.1:<port>", as VELMOR_CATALOGUE_HOST and catalogue addresses take it.
    std::string host() const {
        return "127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port());
    }
    std::vector<std::string> requests() {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

    static void writeAll(Socket& socket, const std::string& bytes) {
        boost::system::error_code ignored;
        boost::asio::write(socket, boost::asio::buffer(bytes), ignored);
    }
    static std::string response(int status, const std::string& body) {
        return "HTTP/1.0 " + std::to_string(status) + (status == 200 ? " OK" : " Not Found") +
               "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }

private:
    void run() {
        for (boost::system::error_code error;;) {
            Socket socket(context_);
            acceptor_.accept(socket, error);
            if (error)  // shut down
                return;
            std::string request;
            boost::asio::read_until(socket, boost::asio::dynamic_buffer(request), "\r\n\r\n",
                                    error);
            const std::size_t from = request.find(' ') + 1;
            std::unique_lock<std::mutex> lock(mutex_);
            requests_.push_back(request);
            const Handler handler = handlers_[request.substr(from, request.find(' ', from) - from)];
            lock.unlock();
            if (handler)
                handler(socket, request);
            else
                writeAll(socket, "HTTP/1.0 404 Not Found\r\n\r\nno such path");
            socket.shutdown(Socket::shutdown_both, error);
        }
    }

    boost::asio::io_context context_;
    boost::asio::ip::tcp::acceptor acceptor_{context_,
                                             {boost::asio::ip::address_v4::loopback(), 0}};
    std::mutex mutex_;
    std::map<std::string, Handler> handlers_;
    std::vector<std::string> requests_;
    std::thread thread_;  // last: starts when everything else is there
};

}  // namespace vlm::test
