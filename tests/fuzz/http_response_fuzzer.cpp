// libFuzzer target: the plug-in GET client against a loopback server that answers each request
// with the input.
#include <boost/asio.hpp>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <thread>

#include "plugins/HttpGet.h"

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

static asio::io_context context;
static tcp::acceptor acceptor(context, {asio::ip::make_address_v4("127.0.0.1"), 0});

// What follows the first "\r\n" line after the status line, lines ending at each '\n'.
static std::optional<std::string> bodyOf(const std::string& response) {
    for (auto end = response.find('\n'); end != std::string::npos;) {
        const auto next = response.find('\n', end + 1);
        if (next == end + 2 && response[end + 1] == '\r')
            return response.substr(next + 1);
        end = next;
    }
    return std::nullopt;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string response(reinterpret_cast<const char*>(data), size);
    std::thread server([&response] {
        tcp::socket peer = acceptor.accept();
        boost::system::error_code error;
        asio::streambuf request;
        asio::read_until(peer, request, "\r\n\r\n", error);
        asio::write(peer, asio::buffer(response), error);
        peer.shutdown(tcp::socket::shutdown_send, error);
    });
    std::ostringstream body;
    const bool read = vlm::httpGet("127.0.0.1:" + std::to_string(acceptor.local_endpoint().port()),
                                   "/catalogue.json", body);
    server.join();
    if (read && body.str() != bodyOf(response))
        std::abort();
    return 0;
}
