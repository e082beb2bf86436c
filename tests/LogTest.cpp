#include <gtest/gtest.h>

#include <cstring>
#include <regex>

#include "Log.h"
#include "TestSupport.h"

namespace {

using vlm::test::capturedOutput;

std::string pattern(const std::string& text) {  // the text after a "%T  " time stamp
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return R"(\d\d:\d\d:\d\d  )" + std::regex_replace(text, special, R"(\$&)");
}

// One console line per call: time, level colour (0-3 red, 4 yellow, 5 cyan, 6 green,
// 7 magenta), the category form's place and category, the text as formatted, reset; a text
// cut at the 1024-byte buffer ends in "..." only when it ended in a newline.
TEST(Log, ConsoleLine) {
    const std::string big(2000, 'x');
    struct Case {
        const char* category;  // "" for logLine
        std::uint32_t level;
        std::string format, expected;
    } cases[] = {
        // clang-format off
        {"", 4, "disk %s at 97%%\n", "\033[33m\033[1mdisk full at 97%\n\033[0m"},
        {"", 0, "x", "\033[31m\033[1mx\033[0m"}, {"", 3, "x", "\033[31m\033[1mx\033[0m"},
        {"", 5, "x", "\033[36m\033[1mx\033[0m"}, {"", 6, "x", "\033[32m\033[1mx\033[0m"},
        {"", 7, "x", "\033[35m\033[1mx\033[0m"},
        {"zc", 3, "failed %s\n", "In f.cpp, line 7: \033[31m\033[1m zc: failed full\n\033[0m"},
        {nullptr, 5, "note %s\n", "In f.cpp, line 7: \033[36m\033[1mnote full\n\033[0m"},
        {"", 6, big + "\n", "\033[32m\033[1m" + big.substr(0, 1023 - 10 - 9) + "\033[0m...\n"},
        {"", 6, big, "\033[32m\033[1m" + big.substr(0, 1023 - 10 - 9) + "\033[0m"},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected.substr(0, 60));
        const std::string out = capturedOutput([&] {
            if (c.category && !*c.category)
                vlm::logLine(c.level, "f.cpp", 7, c.format.c_str(), "full");
            else
                vlm::logCategoryLine(c.category, c.level, "f.cpp", 7, c.format.c_str(), "full");
        });
        EXPECT_TRUE(std::regex_match(out, std::regex(pattern(c.expected)))) << out;
    }
}

// Levels 8 and above never reach the console, but the hook (which replaces the console) gets
// every level; a colour changed at run time is used.
TEST(Log, HookHighLevelsAndColours) {
    EXPECT_EQ(capturedOutput([] {
                  vlm::logLine(8, "a.cpp", 1, "hidden\n");
                  vlm::logCategoryLine("c", 9, "a.cpp", 1, "hidden\n");
              }),
              "");
    static std::string seen;
    vlm::logHook = [](std::uint32_t level, const char* file, int line, const char* message) {
        seen = std::to_string(level) + file + ":" + std::to_string(line) + ":" + message;
    };
    EXPECT_EQ(capturedOutput([] { vlm::logLine(12, "b.cpp", 34, "value %d\n", 5); }), "");
    vlm::logHook = nullptr;
    EXPECT_EQ(seen, "12b.cpp:34:value 5\n");
    char saved[vlm::kLogColourSize];
    std::memcpy(saved, vlm::logColours[6], sizeof saved);
    std::strcpy(vlm::logColours[6], "\033[34m");
    const std::string out = capturedOutput([] { vlm::logLine(6, "a.cpp", 1, "blue"); });
    std::memcpy(vlm::logColours[6], saved, sizeof saved);
    EXPECT_NE(out.find("\033[34mblue\033[0m"), std::string::npos) << out;
}

// The file sink gets the same lines without colours.
TEST(Log, FileSink) {
    vlm::test::TempDir dir;
    vlm::logFile = std::fopen(dir.file("log.txt").c_str(), "w");
    capturedOutput([] {
        vlm::logLine(2, "a.cpp", 1, "plain %d\n", 1);
        vlm::logCategoryLine("cat", 2, "b.cpp", 9, "plain %d\n", 2);
        vlm::logCategoryLine(nullptr, 2, "c.cpp", 10, "plain %d\n", 3);
    });
    std::fclose(vlm::logFile);
    vlm::logFile = nullptr;
    const std::string text = vlm::test::readFile(dir.file("log.txt"));
    EXPECT_TRUE(std::regex_match(
        text, std::regex(pattern("plain 1\nIn b.cpp, line 9:  cat: plain 2\nIn c.cpp, line 10: "
                                 "plain 3\n"))))
        << text;
}

}  // namespace
