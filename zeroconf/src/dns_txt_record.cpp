#include "zeroconf/dns_txt_record.h"

#include <cstdlib>
#include <cstring>

#include "zeroconf_log.h"

namespace zeroconf {

namespace {

constexpr std::size_t max_entry = 127;
constexpr std::size_t max_record = 32767;

}  // namespace

dns_txt_records::dns_txt_records(const std::vector<std::string>& entries) {
    std::size_t total = 0;
    for (const std::string& entry : entries) {
        if (entry.size() > max_entry)
            return;
        if (!entry.empty())
            total += 1 + entry.size();
    }
    if (total == 0 || total > max_record)
        return;
    data_ = static_cast<unsigned char*>(std::malloc(total));
    if (!data_)
        return;
    unsigned char* cursor = data_;
    for (const std::string& entry : entries) {
        if (entry.empty())
            continue;
        *cursor++ = static_cast<unsigned char>(entry.size());
        std::memcpy(cursor, entry.data(), entry.size());
        cursor += entry.size();
    }
    length_ = static_cast<std::uint16_t>(total);
}

dns_txt_records::~dns_txt_records() {
    std::free(data_);
}

bool parse_txt_record(std::uint16_t length, const unsigned char* data,
                      std::vector<std::string>& entries) {
    entries.clear();
    if (length == 0 || !data)
        return true;
    std::size_t cursor = 0;
    while (true) {
        std::size_t entry = data[cursor++];
        if (entry > length - cursor) {
            ZEROCONF_LOG(3, "Invalid TXT Record\n");
            entries.clear();
            return false;
        }
        entries.emplace_back(reinterpret_cast<const char*>(data + cursor), entry);
        cursor += entry;
        if (cursor == length)
            return true;
    }
}

}  // namespace zeroconf
