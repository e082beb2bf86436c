#include "Agent/EndpointProbe.h"

#include <unistd.h>

#include <QHostAddress>
#include <QNetworkInterface>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>

namespace vlm {

namespace {
namespace ip = boost::asio::ip;

std::string configuredAddress(json::Document* config) {
    const json::Value* value = json::findPath(config, {"server", "ip"});
    if (!value || !value->IsString())
        return {};
    return std::string(value->GetString(), value->GetStringLength());
}

// Connecting a UDP socket sends nothing, yet the system picks the outgoing interface.
std::string routedAddress(const char* routingAddress) {
    boost::asio::io_context context;
    ip::udp::resolver resolver(context);
    // Numeric only: the probe must never turn into a name look-up.
    auto endpoints =
        resolver.resolve(ip::udp::v4(), routingAddress, "53",
                         ip::resolver_base::numeric_host | ip::resolver_base::numeric_service);
    ip::udp::socket socket(context);
    socket.connect(*endpoints.begin());
    return socket.local_endpoint().address().to_string();
}

// A studio network often has no default route: an up interface still names this machine.
std::string interfaceAddress() {
    for (const QNetworkInterface& interface : QNetworkInterface::allInterfaces()) {
        const auto flags = interface.flags();
        if (!(flags & QNetworkInterface::IsUp) || (flags & QNetworkInterface::IsLoopBack))
            continue;
        for (const QNetworkAddressEntry& entry : interface.addressEntries()) {
            const QHostAddress address = entry.ip();
            if (address.protocol() == QAbstractSocket::IPv4Protocol && !address.isLoopback())
                return address.toString().toStdString();
        }
    }
    return {};
}

// Debian writes the host's own name on 127.0.1.1: a loopback answer names no network address.
std::string hostNameAddress() {
    char name[1024] = {};
    if (gethostname(name, sizeof name - 1) != 0)
        return {};
    boost::asio::io_context context;
    ip::tcp::resolver resolver(context);
    boost::system::error_code error;
    auto results = resolver.resolve(name, "", error);
    if (error)
        return {};
    for (const auto& result : results) {
        const ip::address address = result.endpoint().address();
        if (!address.is_v4() || address.is_loopback())
            continue;
        std::string text = address.to_string();
        if (text.find(':') == std::string::npos)
            return text;
    }
    return {};
}
}  // namespace

std::string probeLocalAddress(json::Document* config, const char* routingAddress) {
    std::string address = configuredAddress(config);
    if (!address.empty())
        return address;
    try {
        return routedAddress(routingAddress);
    } catch (const std::exception&) {
    }
    address = interfaceAddress();
    if (address.empty())
        address = hostNameAddress();
    return address.empty() ? "0.0.0.0" : address;
}

std::vector<std::string> currentIPv4Addresses() {
    std::vector<std::string> addresses;
    for (const QHostAddress& address : QNetworkInterface::allAddresses())
        if (address.protocol() == QAbstractSocket::IPv4Protocol)
            addresses.push_back(address.toString().toStdString());
    return addresses;
}

}  // namespace vlm
