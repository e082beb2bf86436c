#pragma once
// TXT records (RFC 6763): a sequence of length-prefixed strings.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zeroconf {

/// \brief A TXT record encoded from its entries, ready for DNSServiceRegister. Entries over
/// 127 bytes, or a record over 32767 bytes, give an empty record.
class dns_txt_records {
public:
    explicit dns_txt_records(const std::vector<std::string>& entries);
    virtual ~dns_txt_records();
    dns_txt_records(const dns_txt_records&) = delete;
    dns_txt_records& operator=(const dns_txt_records&) = delete;

    std::uint16_t length() const { return length_; }
    /// Null when the record is empty.
    const unsigned char* data() const { return data_; }

private:
    std::uint16_t length_ = 0;
    unsigned char* data_ = nullptr;
};

/// Splits a received TXT record into its entries; false (and no entries) when malformed.
bool parse_txt_record(std::uint16_t length, const unsigned char* data,
                      std::vector<std::string>& entries);

}  // namespace zeroconf
