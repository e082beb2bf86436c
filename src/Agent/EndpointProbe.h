#pragma once
// This machine's own IPv4 address, as a Master agent needs it to recognise its own server.

#include <string>
#include <vector>

#include "json/Json.h"

namespace vlm {

/// Any well-known public address serves: only the route to it is looked at.
constexpr const char* kRoutingProbeAddress = "9.9.9.9";

/// The configured "server"/"ip" when set; else the address of the interface that routes to
/// routingAddress; else the first IPv4 address of an up, non-loopback interface; else the
/// first non-loopback IPv4 address of the host name; else "0.0.0.0".
std::string probeLocalAddress(json::Document* config,
                              const char* routingAddress = kRoutingProbeAddress);

/// Every IPv4 address this machine holds now, read afresh on each call.
std::vector<std::string> currentIPv4Addresses();

}  // namespace vlm
