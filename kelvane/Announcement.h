#pragma once
// The engine's DNS-SD announcement; withdrawn when the engine stops.

#include <cstdint>

namespace kelvane {

void announce(std::uint16_t port, bool master);
void withdraw();

}  // namespace kelvane
