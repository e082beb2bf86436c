// libFuzzer target: the plug-in GET client against a loopback server answering with the input.
#include <boost/asio.hpp>
#include <mutex>
#include <sstream>
#include <thread>
#include "plugins/HttpGet.h"
namespace asio = boost::asio;
static asio::io_context context;
static asio::ip::tcp::acceptor acceptor(context, {asio::ip::address_v4::loopback(), 0});
static std::mutex guard;
static std::string response;
// One server for all inputs: a thread for each made the fuzzer's own memory grow without end.
[[maybe_unused]] static const bool serving = [] {
    std::thread([] {
        for (;;) {
            boost::system::error_code error;
            asio::ip::tcp::socket peer = acceptor.accept(error);
            if (error)
                return;  // the process is ending
            std::string answer;
            {
                std::lock_guard<std::mutex> lock(guard);
                answer = response;
            }
            asio::streambuf request;
            asio::read_until(peer, request, "\r\n\r\n", error);
            asio::write(peer, asio::buffer(answer), error);
            peer.shutdown(asio::socket_base::shutdown_send, error);
        }
    }).detach();
    return true;
}();

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    {
        std::lock_guard<std::mutex> lock(guard);
        response = input;
    }
    std::ostringstream body;
    const bool read = vlm::httpGet("127.0.0.1:" + std::to_string(acceptor.local_endpoint().port()),
                                   "/plugins.json", body);
    // The body follows the first line that is only "\r" after the status line.
    const auto blank = input.find("\n\r\n", input.find('\n'));
    if (read && (blank == std::string::npos || body.str() != input.substr(blank + 3)))
        std::abort();
    return 0;
}
