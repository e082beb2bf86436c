// libFuzzer target: the TXT record parser, checked against the encoder.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zeroconf/dns_txt_record.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Malformed records are logged on standard output; the fuzzer reports on standard error.
    if (!std::freopen("/dev/null", "w", stdout))
        std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 0xffff)
        return 0;
    // A copy of exactly the record's size, so any read past its end is caught.
    std::vector<unsigned char> record(data, data + size);
    std::vector<std::string> entries;
    bool ok = zeroconf::parse_txt_record(static_cast<std::uint16_t>(size),
                                         record.empty() ? nullptr : record.data(), entries);
    if (!ok) {
        if (!entries.empty())
            std::abort();
        return 0;
    }

    // A record the encoder could have made must come out of it unchanged.
    std::size_t total = 0;
    for (const std::string& entry : entries) {
        if (entry.empty() || entry.size() > 127)
            return 0;
        total += 1 + entry.size();
    }
    if (total != size)
        std::abort();
    if (total > 32767)
        return 0;
    zeroconf::dns_txt_records encoded(entries);
    if (encoded.length() != size ||
        (size > 0 && std::memcmp(encoded.data(), record.data(), size) != 0))
        std::abort();
    return 0;
}
