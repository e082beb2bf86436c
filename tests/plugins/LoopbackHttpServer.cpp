#include "LoopbackHttpServer.h"

namespace vlm::test {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

LoopbackHttpServer::LoopbackHttpServer()
    : acceptor_(context_, tcp::endpoint(asio::ip::address_v4::loopback(), 0)),
      port_(acceptor_.local_endpoint().port()) {
    acceptThread_ = std::thread([this] {
        for (;;) {
            auto socket = std::make_shared<tcp::socket>(context_);
            boost::system::error_code error;
            acceptor_.accept(*socket, error);
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_)
                return;
            threads_.emplace_back([this, socket] {
                asio::streambuf buffer(64 * 1024);
                boost::system::error_code ignored;
                asio::read_until(*socket, buffer, "\r\n\r\n", ignored);
                const std::string request(asio::buffers_begin(buffer.data()),
                                          asio::buffers_end(buffer.data()));
                const std::size_t space = request.find(' ');
                const std::string path =
                    space == std::string::npos
                        ? std::string()
                        : request.substr(space + 1, request.find(' ', space + 1) - space - 1);
                Handler handler = [](Socket& s, const std::string&) {
                    writeAll(s, response(404, "<html><body><h1>404 Not Found</h1></body></html>"));
                };
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    requests_.push_back(request);
                    if (handlers_.count(path))
                        handler = handlers_[path];
                }
                handler(*socket, request);
                socket->shutdown(tcp::socket::shutdown_both, ignored);
            });
        }
    });
}

LoopbackHttpServer::~LoopbackHttpServer() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    // A blocking accept does not wake when the acceptor closes: wake it with one connection.
    tcp::socket waker(context_);
    boost::system::error_code ignored;
    waker.connect(tcp::endpoint(asio::ip::address_v4::loopback(), port_), ignored);
    acceptThread_.join();
    for (std::thread& thread : threads_)
        thread.join();
}

void LoopbackHttpServer::serve(const std::string& path, const std::string& body) {
    handle(path,
           [body](Socket& socket, const std::string&) { writeAll(socket, response(200, body)); });
}

void LoopbackHttpServer::handle(const std::string& path, Handler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    handlers_[path] = std::move(handler);
}

std::vector<std::string> LoopbackHttpServer::requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void LoopbackHttpServer::writeAll(Socket& socket, const std::string& bytes) {
    boost::system::error_code ignored;
    asio::write(socket, asio::buffer(bytes), ignored);
}

std::string LoopbackHttpServer::response(int status, const std::string& body) {
    return "HTTP/1.0 " + std::to_string(status) + (status == 200 ? " OK" : " Not Found") +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace vlm::test
