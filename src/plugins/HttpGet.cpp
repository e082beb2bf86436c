#include "plugins/HttpGet.h"

#include <boost/asio.hpp>
#include <cstdlib>
#include <exception>
#include <istream>
#include <vector>

namespace vlm {

namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

constexpr const char* kMakerCatalogueHost = "plugins.corvane-technologies.com";
// A peer that never ends its headers must not grow the buffer without bound.
constexpr std::size_t kHeadLimit = 1024 * 1024;
constexpr std::size_t kBodyChunk = 256 * 1024;

void readHead(tcp::socket& socket, asio::streambuf& response) {
    std::istream in(&response);
    std::size_t headBytes = 0;
    bool statusLine = true;
    for (;;) {
        // Line by line rather than up to "\r\n\r\n", so that a response without any header
        // line ends its head too.
        std::size_t length = asio::read_until(socket, response, "\r\n");
        headBytes += length;
        if (headBytes > kHeadLimit)
            throw std::length_error("response head too long");
        std::string line;
        std::getline(in, line);
        if (!statusLine && line == "\r")
            return;
        statusLine = false;
    }
}

// The host as written, without its port: the port never goes into "Host: ".
std::string hostText(const std::string& host) {
    if (!host.empty() && host.front() == '[') {
        auto close = host.find(']');
        if (close != std::string::npos)
            return host.substr(0, close + 1);
    }
    auto colon = host.find(':');
    if (colon == std::string::npos || host.find(':', colon + 1) != std::string::npos)
        return host;
    return host.substr(0, colon);
}

}  // namespace

std::pair<std::string, std::string> splitHostPort(const std::string& host) {
    if (!host.empty() && host.front() == '[') {
        auto close = host.find(']');
        if (close != std::string::npos) {
            std::string name = host.substr(1, close - 1);
            if (close + 1 < host.size() && host[close + 1] == ':')
                return {name, host.substr(close + 2)};
            return {name, "http"};
        }
    }
    auto colon = host.find(':');
    // More than one colon is a bare IPv6 address, not a port.
    if (colon == std::string::npos || host.find(':', colon + 1) != std::string::npos)
        return {host, "http"};
    return {host.substr(0, colon), host.substr(colon + 1)};
}

std::pair<std::string, std::string> splitAddress(const std::string& address) {
    std::string rest = address;
    if (rest.compare(0, 7, "http://") == 0)
        rest.erase(0, 7);
    auto slash = rest.find('/');
    if (slash == std::string::npos)
        return {rest, "/"};
    return {rest.substr(0, slash), rest.substr(slash)};
}

std::string catalogueHost() {
    const char* configured = std::getenv("VELMOR_CATALOGUE_HOST");
    if (configured && *configured)
        return configured;
    return kMakerCatalogueHost;
}

bool httpGet(const std::string& host, const std::string& path, std::ostream& body) {
    try {
        auto [name, service] = splitHostPort(host);
        asio::io_context context;
        tcp::resolver resolver(context);
        boost::system::error_code error;
        auto endpoints = resolver.resolve(name, service, error);
        if (error)
            throw boost::system::system_error(error, "resolve");
        tcp::socket socket(context);
        asio::connect(socket, endpoints);

        asio::streambuf request;
        std::ostream out(&request);
        out << "GET " << path << " HTTP/1.0\r\n"
            << "Host: " << hostText(host) << "\r\n"
            << "Accept: */*\r\n"
            << "Connection: close\r\n\r\n";
        asio::write(socket, request);

        asio::streambuf response(kHeadLimit);
        readHead(socket, response);
        if (response.size() > 0)
            body << &response;

        std::vector<char> chunk(kBodyChunk);
        for (;;) {
            std::size_t n = socket.read_some(asio::buffer(chunk), error);
            if (error)
                break;
            body.write(chunk.data(), static_cast<std::streamsize>(n));
        }
        if (error != asio::error::eof)
            throw boost::system::system_error(error, "read");
        return static_cast<bool>(body);
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace vlm
