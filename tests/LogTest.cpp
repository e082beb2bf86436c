#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>

#include "Log.h"
#include "support/TestSupport.h"

namespace {

const std::string kTime = R"(\d\d:\d\d:\d\d  )";

std::string escape(const std::string& text) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, special, R"(\$&)");
}

class LogTest : public ::testing::Test {
protected:
    void TearDown() override {
        vlm::logHook = nullptr;
        vlm::logFile = nullptr;
    }
    static std::string capture(void (*write)()) {
        ::testing::internal::CaptureStdout();
        write();
        return ::testing::internal::GetCapturedStdout();
    }
};

TEST_F(LogTest, LineCarriesTimeColourMessageAndReset) {
    std::string out =
        capture([] { vlm::logLine(4, "a.cpp", 12, "disk %s at %d%%\n", "full", 97); });
    EXPECT_TRUE(std::regex_match(
        out, std::regex(kTime + escape("\033[33m\033[1mdisk full at 97%\n\033[0m"))))
        << out;
}

TEST_F(LogTest, EachLevelHasItsColour) {
    const char* expected[] = {"31", "31", "31", "31", "33", "36", "32", "35"};
    for (std::uint32_t level = 0; level < 8; ++level) {
        ::testing::internal::CaptureStdout();
        vlm::logLine(level, "a.cpp", 1, "x");
        std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find(std::string("\033[") + expected[level] + "m\033[1mx\033[0m"),
                  std::string::npos)
            << level;
    }
}

TEST_F(LogTest, LevelEightAndAboveAreDropped) {
    EXPECT_EQ(capture([] { vlm::logLine(8, "a.cpp", 1, "hidden\n"); }), "");
    EXPECT_EQ(capture([] { vlm::logCategoryLine("c", 9, "a.cpp", 1, "hidden\n"); }), "");
}

TEST_F(LogTest, HookReceivesEveryLevelAndReplacesConsole) {
    static std::string seen;
    static std::uint32_t seenLevel;
    vlm::logHook = [](std::uint32_t level, const char* file, int line, const char* message) {
        seenLevel = level;
        seen = std::string(file) + ":" + std::to_string(line) + ":" + message;
    };
    EXPECT_EQ(capture([] { vlm::logLine(12, "b.cpp", 34, "value %d\n", 5); }), "");
    EXPECT_EQ(seenLevel, 12u);
    EXPECT_EQ(seen, "b.cpp:34:value 5\n");
}

TEST_F(LogTest, LongLineIsCutWithResetAndDots) {
    static const std::string longText(2000, 'x');
    std::string out = capture([] { vlm::logLine(6, "a.cpp", 1, "%s\n", longText.c_str()); });
    const std::string tail = "x\033[0m...\n";
    ASSERT_GE(out.size(), tail.size());
    EXPECT_EQ(out.substr(out.size() - tail.size()), tail);
    // The buffer holds 1023 characters: the time stamp, the colour and the start of the text.
    EXPECT_EQ(out.size(), 1023u + std::string("\033[0m...\n").size());
}

TEST_F(LogTest, LongLineWithoutNewlineGetsNoDots) {
    static const std::string longText(2000, 'y');
    std::string out = capture([] { vlm::logLine(6, "a.cpp", 1, "%s", longText.c_str()); });
    EXPECT_EQ(out.substr(out.size() - 5), "y\033[0m");
}

TEST_F(LogTest, MessageWithoutNewlineGetsNone) {
    std::string out = capture([] {
        vlm::logLine(6, "a.cpp", 1, "first ");
        vlm::logLine(6, "a.cpp", 1, "second\n");
    });
    EXPECT_TRUE(std::regex_match(out, std::regex(kTime + escape("\033[32m\033[1mfirst \033[0m") +
                                                 kTime + escape("\033[32m\033[1msecond\n\033[0m"))))
        << out;
}

TEST_F(LogTest, CategoryLineOrder) {
    std::string out = capture([] {
        vlm::logCategoryLine("zeroconf_category", 3, "client.cpp", 77, "failed (%d)\n", -65563);
    });
    EXPECT_TRUE(std::regex_match(
        out, std::regex(kTime + escape("In client.cpp, line 77: \033[31m\033[1m zeroconf_category: "
                                       "failed (-65563)\n\033[0m"))))
        << out;
}

TEST_F(LogTest, CategoryLineWithoutCategory) {
    std::string out = capture([] { vlm::logCategoryLine(nullptr, 5, "f.cpp", 3, "note\n"); });
    EXPECT_TRUE(std::regex_match(
        out, std::regex(kTime + escape("In f.cpp, line 3: \033[36m\033[1mnote\n\033[0m"))))
        << out;
}

TEST_F(LogTest, FileGetsPlainLines) {
    vlm::test::TempDir dir;
    std::string path = dir.file("log.txt");
    vlm::logFile = std::fopen(path.c_str(), "w");
    capture([] {
        vlm::logLine(2, "a.cpp", 1, "plain %d\n", 1);
        vlm::logCategoryLine("cat", 2, "b.cpp", 9, "plain %d\n", 2);
        vlm::logCategoryLine(nullptr, 2, "c.cpp", 10, "plain %d\n", 3);
    });
    std::fclose(vlm::logFile);
    vlm::logFile = nullptr;
    std::string text = vlm::test::readFile(path);
    EXPECT_TRUE(
        std::regex_match(text, std::regex(kTime + "plain 1\nIn b\\.cpp, line 9:  cat: plain 2\n"
                                                  "In c\\.cpp, line 10: plain 3\n")))
        << text;
}

TEST_F(LogTest, ColourCanBeChangedAtRunTime) {
    char saved[vlm::kLogColourSize];
    std::memcpy(saved, vlm::logColours[6], sizeof saved);
    std::strcpy(vlm::logColours[6], "\033[34m");
    std::string out = capture([] { vlm::logLine(6, "a.cpp", 1, "blue"); });
    std::memcpy(vlm::logColours[6], saved, sizeof saved);
    EXPECT_NE(out.find("\033[34mblue\033[0m"), std::string::npos);
}

}  // namespace
