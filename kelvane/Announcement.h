#pragma once
// The engine's DNS-SD announcement; withdrawn when the engine stops.

#include <cstdint>
#include <string>

namespace kelvane {

/// "_velmor_" and the host name up to its first dot, cut to stay under 64 bytes.
std::string instanceName(const std::string& hostName);

/// Registers the engine as "_http._tcp" with subtype "_ravenna"; the outcome is logged.
void announce(std::uint16_t port, bool master);
void withdraw();

}  // namespace kelvane
