// libFuzzer target: cutting the instance part from a DNS-SD full name and undoing its escapes.

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "bonjour_browser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Full names reach the library as C strings.
    std::string fullname(reinterpret_cast<const char*>(data), size);
    fullname = fullname.c_str();

    std::string unescaped = zeroconf::unescape_instance_name(fullname);
    if (unescaped.size() > fullname.size())
        std::abort();

    try {
        std::string instance = zeroconf::instance_part(fullname.c_str());
        if (instance.size() >= fullname.size() || fullname.compare(0, instance.size(), instance) ||
            fullname[instance.size()] != '.')
            std::abort();
        if (zeroconf::unescape_instance_name(instance).size() > instance.size())
            std::abort();
    } catch (const std::runtime_error&) {
        // No unescaped dot: "illegal service name".
    }
    return 0;
}
