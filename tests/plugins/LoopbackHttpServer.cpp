#include "LoopbackHttpServer.h"

namespace vlm::test {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

LoopbackHttpServer::LoopbackHttpServer()
    : acceptor_(context_, tcp::endpoint(asio::ip::address_v4::loopback(), 0)) {
    port_ = acceptor_.local_endpoint().port();
    acceptThread_ = std::thread([this] { acceptLoop(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
    // A blocking accept does not wake when the acceptor closes: wake it with one connection.
    stopping_ = true;
    boost::system::error_code ignored;
    tcp::socket waker(context_);
    waker.connect(tcp::endpoint(asio::ip::address_v4::loopback(), port_), ignored);
    acceptThread_.join();
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        threads.swap(threads_);
    }
    for (auto& thread : threads)
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

std::string LoopbackHttpServer::response(int status, const std::string& body,
                                         const std::string& contentType) {
    return "HTTP/1.0 " + std::to_string(status) + (status == 200 ? " OK" : " Not Found") +
           "\r\nContent-Type: " + contentType +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

void LoopbackHttpServer::acceptLoop() {
    for (;;) {
        tcp::socket socket(context_);
        boost::system::error_code error;
        acceptor_.accept(socket, error);
        if (stopping_)
            return;
        if (error)
            continue;
        ++connections_;
        std::lock_guard<std::mutex> lock(mutex_);
        threads_.emplace_back(
            [this, s = std::move(socket)]() mutable { serveConnection(std::move(s)); });
    }
}

void LoopbackHttpServer::serveConnection(Socket socket) {
    asio::streambuf buffer(64 * 1024);
    boost::system::error_code error;
    asio::read_until(socket, buffer, "\r\n\r\n", error);
    if (error)
        return;
    std::string request(asio::buffers_begin(buffer.data()), asio::buffers_end(buffer.data()));
    std::string path;
    auto space = request.find(' ');
    if (space != std::string::npos)
        path = request.substr(space + 1, request.find(' ', space + 1) - space - 1);
    Handler handler;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(request);
        auto found = handlers_.find(path);
        if (found != handlers_.end())
            handler = found->second;
    }
    if (handler)
        handler(socket, request);
    else
        writeAll(socket,
                 response(404, "<html><body><h1>404 Not Found</h1></body></html>", "text/html"));
    socket.shutdown(tcp::socket::shutdown_both, error);
    socket.close(error);
}

}  // namespace vlm::test
