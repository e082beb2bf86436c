#include <gtest/gtest.h>

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

}  // namespace
