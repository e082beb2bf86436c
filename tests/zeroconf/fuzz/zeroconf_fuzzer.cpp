// libFuzzer targets, one per build: the TXT parser against the encoder (TXT_RECORD_FUZZER), or a
// full name's instance part cut and unescaped.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "bonjour_browser.h"
#include "zeroconf/dns_txt_record.h"

#ifdef TXT_RECORD_FUZZER
// Malformed records are logged on standard output; the fuzzer reports on standard error.
[[maybe_unused]] static std::FILE* quiet = std::freopen("/dev/null", "w", stdout);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A copy of exactly the record's size, so any read past its end is caught.
    std::vector<unsigned char> record(data, data + size);
    std::vector<std::string> entries;
    if (size > 0xffff || !zeroconf::parse_txt_record(static_cast<std::uint16_t>(size),
                                                     size ? record.data() : nullptr, entries))
        return entries.empty() ? 0 : (std::abort(), 0);
    // A record the encoder could have made must come out of it unchanged.
    std::size_t total = 0;
    for (const std::string& entry : entries)
        total += entry.empty() || entry.size() > 127 ? 1 << 16 : 1 + entry.size();
    if (total >= 1 << 16)
        return 0;
    zeroconf::dns_txt_records encoded(entries);
    if (total != size || (total <= 32767 && (encoded.length() != size ||
                                             (size && std::memcmp(encoded.data(), data, size)))))
        std::abort();
    return 0;
}
#else
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Full names reach the library as C strings.
    std::string fullname = std::string(reinterpret_cast<const char*>(data), size).c_str();
    if (zeroconf::unescape_instance_name(fullname).size() > fullname.size())
        std::abort();
    try {
        std::string instance = zeroconf::instance_part(fullname.c_str());
        if (instance.size() >= fullname.size() || fullname.compare(0, instance.size(), instance) ||
            fullname[instance.size()] != '.' ||
            zeroconf::unescape_instance_name(instance).size() > instance.size())
            std::abort();
    } catch (const std::runtime_error&) {  // no unescaped dot: "illegal service name"
    }
    return 0;
}
#endif
