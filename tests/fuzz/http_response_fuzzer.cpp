// libFuzzer target: the plug-in GET client against a loopback server answering with the input.
#include <boost/asio.hpp>
#include <sstream>
#include <thread>
#include "plugins/HttpGet.h"
namespace asio = boost::asio;
static asio::io_context context;
static asio::ip::tcp::acceptor acceptor(context, {asio::ip::address_v4::loopback(), 0});

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string response(reinterpret_cast<const char*>(data), size);
    std::thread server([&response] {
        asio::ip::tcp::socket peer = acceptor.accept();
        boost::system::error_code error;
        asio::streambuf request;
        asio::read_until(peer, request, "\r\n\r\n", error);
        asio::write(peer, asio::buffer(response), error);
        peer.shutdown(asio::socket_base::shutdown_send, error);
    });
    std::ostringstream body;
    const bool read = vlm::httpGet("127.0.0.1:" + std::to_string(acceptor.local_endpoint().port()),
                                   "/plugins.json", body);
    server.join();
    // The body follows the first line that is only "\r" after the status line.
    const auto blank = response.find("\n\r\n", response.find('\n'));
    if (read && (blank == std::string::npos || body.str() != response.substr(blank + 3)))
        std::abort();
    return 0;
}
