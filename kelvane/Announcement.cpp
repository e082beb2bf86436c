#include "Announcement.h"

namespace kelvane {

void announce(std::uint16_t, bool) {}
void withdraw() {}

}  // namespace kelvane
