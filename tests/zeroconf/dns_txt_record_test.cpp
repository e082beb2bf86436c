#include "zeroconf/dns_txt_record.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zeroconf_test_support.h"

namespace {

using zeroconf::dns_txt_records;
using zeroconf::parse_txt_record;
using zeroconf_test::stdout_capture;

std::string bytes(const dns_txt_records& record) {
    return record.data()
               ? std::string(reinterpret_cast<const char*>(record.data()), record.length())
               : std::string();
}

std::vector<std::string> parse(const std::string& record, bool* ok = nullptr) {
    std::vector<std::string> entries{"left over"};
    bool result = parse_txt_record(static_cast<std::uint16_t>(record.size()),
                                   reinterpret_cast<const unsigned char*>(record.data()), entries);
    if (ok)
        *ok = result;
    return entries;
}

TEST(DnsTxtRecordTest, EmptyEntriesAreLeftOut) {
    dns_txt_records record({"a=1", "", "b=2"});
    EXPECT_EQ(record.length(), 8);
    EXPECT_EQ(bytes(record), std::string("\x03"
                                         "a=1"
                                         "\x03"
                                         "b=2"));
}

TEST(DnsTxtRecordTest, NoEntriesGiveAnEmptyRecord) {
    dns_txt_records record({});
    EXPECT_EQ(record.length(), 0);
    EXPECT_EQ(record.data(), nullptr);
}

TEST(DnsTxtRecordTest, EntryOf127BytesIsAccepted) {
    std::string entry(127, 'x');
    dns_txt_records record({"master:1", entry});
    ASSERT_EQ(record.length(), 9 + 128);
    EXPECT_EQ(bytes(record), "\x08master:1\x7f" + entry);
}

TEST(DnsTxtRecordTest, EntryOf128BytesEmptiesTheWholeRecord) {
    stdout_capture log;
    dns_txt_records record({"master:1", std::string(128, 'x')});
    EXPECT_EQ(record.length(), 0);
    EXPECT_EQ(record.data(), nullptr);
    EXPECT_EQ(log.text(), "");
}

// 255 entries of 127 bytes (128 encoded each) = 32,640; the last entry makes up the rest.
std::vector<std::string> entries_encoding_to(std::size_t total) {
    std::vector<std::string> entries(255, std::string(127, 'y'));
    entries.push_back(std::string(total - 255 * 128 - 1, 'z'));
    return entries;
}

TEST(DnsTxtRecordTest, RecordOf32767BytesIsAccepted) {
    auto entries = entries_encoding_to(32767);
    dns_txt_records record(entries);
    ASSERT_EQ(record.length(), 32767);
    bool ok = false;
    EXPECT_EQ(parse(bytes(record), &ok), entries);
    EXPECT_TRUE(ok);
}

TEST(DnsTxtRecordTest, RecordOf32768BytesIsEmpty) {
    stdout_capture log;
    dns_txt_records record(entries_encoding_to(32768));
    EXPECT_EQ(record.length(), 0);
    EXPECT_EQ(record.data(), nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST(DnsTxtRecordTest, ParserGivesTheEntriesBack) {
    dns_txt_records record({"a=1", "", "b=2"});
    bool ok = false;
    EXPECT_EQ(parse(bytes(record), &ok), (std::vector<std::string>{"a=1", "b=2"}));
    EXPECT_TRUE(ok);
}

TEST(DnsTxtRecordTest, ParserKeepsAZeroLengthEntry) {
    bool ok = false;
    EXPECT_EQ(parse(std::string("\x03"
                                "a=1"
                                "\x00"
                                "\x01"
                                "b",
                                7),
                    &ok),
              (std::vector<std::string>{"a=1", "", "b"}));
    EXPECT_TRUE(ok);
}

TEST(DnsTxtRecordTest, NullOrEmptyRecordIsAnEmptySuccess) {
    std::vector<std::string> entries{"left over"};
    EXPECT_TRUE(parse_txt_record(0, nullptr, entries));
    EXPECT_TRUE(entries.empty());
    entries = {"left over"};
    EXPECT_TRUE(parse_txt_record(5, nullptr, entries));
    EXPECT_TRUE(entries.empty());
}

TEST(DnsTxtRecordTest, OverlongLastEntryRejectsTheWholeRecord) {
    stdout_capture log;
    bool ok = true;
    EXPECT_TRUE(parse(std::string("\x03"
                                  "a=1"
                                  "\x04"
                                  "b=2",
                                  8),
                      &ok)
                    .empty());
    EXPECT_FALSE(ok);
    EXPECT_EQ(log.count(stdout_capture::line(3, "Invalid TXT Record\n")), 1u) << log.text();
}

TEST(DnsTxtRecordTest, LengthByteAtTheEndWithNothingAfterItIsRejected) {
    stdout_capture log;
    bool ok = true;
    EXPECT_TRUE(parse(std::string("\x03"
                                  "a=1"
                                  "\x01",
                                  5),
                      &ok)
                    .empty());
    EXPECT_FALSE(ok);
    EXPECT_TRUE(log.contains("Invalid TXT Record\n"));
}

TEST(DnsTxtRecordTest, TrailingZeroLengthByteIsAnEmptyEntry) {
    bool ok = false;
    EXPECT_EQ(parse(std::string("\x01"
                                "a"
                                "\x00",
                                3),
                    &ok),
              (std::vector<std::string>{"a", ""}));
    EXPECT_TRUE(ok);
}

}  // namespace
