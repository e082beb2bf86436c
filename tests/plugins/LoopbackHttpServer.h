#pragma once
// A small HTTP server on 127.0.0.1 whose answers a test scripts per path, down to the bytes.

#include <atomic>
#include <boost/asio.hpp>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vlm::test {

/// \brief Answers one connection at a time; unknown paths (or a null handler) get a 404 page.
class LoopbackHttpServer {
public:
    using Socket = boost::asio::ip::tcp::socket;
    /// Answers one request; the connection is closed when it returns.
    using Handler = std::function<void(Socket& socket, const std::string& request)>;

    LoopbackHttpServer() : thread_([this] { run(); }) {}
    ~LoopbackHttpServer() {
        stopping_ = true;
        // A blocking accept does not wake when the acceptor closes: wake it with a connection.
        Socket waker(context_);
        boost::system::error_code ignored;
        waker.connect(acceptor_.local_endpoint(), ignored);
        thread_.join();
    }

    /// A 200 answer with this body and a Content-Length.
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
    /// Every request head received, in order.
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
            if (stopping_)
                return;
            boost::asio::streambuf buffer(64 * 1024);
            boost::asio::read_until(socket, buffer, "\r\n\r\n", error);
            const std::string request(boost::asio::buffers_begin(buffer.data()),
                                      boost::asio::buffers_end(buffer.data()));
            const std::size_t from = request.find(' ') + 1;
            Handler handler = [](Socket& s, auto&) {
                writeAll(s, response(404, "<html><body><h1>404 Not Found</h1></body></html>"));
            };
            {
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.push_back(request);
                auto found = handlers_.find(request.substr(from, request.find(' ', from) - from));
                if (found != handlers_.end() && found->second)
                    handler = found->second;
            }
            handler(socket, request);
            socket.shutdown(Socket::shutdown_both, error);
        }
    }

    std::atomic<bool> stopping_{false};
    boost::asio::io_context context_;
    boost::asio::ip::tcp::acceptor acceptor_{context_,
                                             {boost::asio::ip::address_v4::loopback(), 0}};
    std::mutex mutex_;
    std::map<std::string, Handler> handlers_;
    std::vector<std::string> requests_;
    std::thread thread_;  // last: starts when everything else is there
};

}  // namespace vlm::test
