#include <gtest/gtest.h>

#include <regex>

#include "Log.h"
#include "TestSupport.h"

namespace {

// Each "%T  " time stamp shown as "T ".
std::string unstamped(const std::string& text) {
    return std::regex_replace(text, std::regex(R"(\d\d:\d\d:\d\d  )"), "T ");
}

// Console: level colour, the category form's place and category (none when null), message,
// reset; a message cut at the 1024-byte buffer ends in "..." and a newline only when its format
// ended in one. Levels 8 and above go nowhere. The file gets lines without colours, the category
// form's without a time stamp. A hook takes logLine's lines at any level instead of both.
TEST(Log, Lines) {
    static std::string hooked;
    const std::string big(2000, 'x'), kept = big.substr(0, 1023 - 10 - 9),
                                      cut = "T " + big.substr(0, 1013);
    const std::string at = "T In f.cpp, line 7: \033[31m\033[1m", red = "T \033[31m\033[1mx\033[0m";
    struct {
        const char* category;  // "" for logLine
        std::uint32_t level;
        std::string format, console, file;
        const char* hook = nullptr;  // what a hook gets; no hook when null
    } cases[] = {
        // clang-format off
        {"", 4, "disk %s at 97%%\n", "T \033[33m\033[1mdisk full at 97%\n\033[0m", "T disk full at 97%\n"},
        {"", 0, "x", red, "T x"}, {"", 3, "x", red, "T x"}, {"", 5, "x", "T \033[36m\033[1mx\033[0m", "T x"},
        {"", 6, "x", "T \033[32m\033[1mx\033[0m", "T x"}, {"", 7, "x", "T \033[35m\033[1mx\033[0m", "T x"},
        {"zc", 3, "v %s\n", at + " zc: v full\n\033[0m", "In f.cpp, line 7:  zc: v full\n"},
        {nullptr, 3, "v %s\n", at + "v full\n\033[0m", "In f.cpp, line 7: v full\n"},
        {"", 6, big + "\n", "T \033[32m\033[1m" + kept + "\033[0m...\n", cut}, {"", 6, big, "T \033[32m\033[1m" + kept + "\033[0m", cut},
        {"", 8, "v\n", "", ""}, {"c", 9, "v\n", "", ""}, {"c", 8, "v\n", "", "", ""},
        {"", 12, "v %s\n", "", "", "12 f.cpp:7 v full\n"}, {"", 3, "v %s\n", "", "", "3 f.cpp:7 v full\n"},
        {"c", 3, "v %s\n", at + " c: v full\n\033[0m", "In f.cpp, line 7:  c: v full\n", ""},
        // clang-format on
    };
    vlm::test::TempDir dir;
    for (const auto& c : cases) {
        hooked.clear();
        if (c.hook)
            vlm::logHook = [](std::uint32_t level, const char* file, int line, const char* text) {
                hooked =
                    std::to_string(level) + " " + file + ":" + std::to_string(line) + " " + text;
            };
        vlm::logFile = std::fopen(dir.file("log.txt").c_str(), "w");
        const std::string out = vlm::test::capturedOutput([&] {
            if (c.category && !*c.category)
                vlm::logLine(c.level, "f.cpp", 7, c.format.c_str(), "full");
            else
                vlm::logCategoryLine(c.category, c.level, "f.cpp", 7, c.format.c_str(), "full");
        });
        std::fclose(vlm::logFile);
        vlm::logFile = nullptr, vlm::logHook = nullptr;
        EXPECT_EQ(unstamped(out), c.console) << c.format.substr(0, 10) << c.level;
        EXPECT_EQ(unstamped(vlm::test::readFile(dir.file("log.txt"))), c.file) << c.level;
        EXPECT_EQ(hooked, c.hook ? c.hook : "") << c.level;
    }
}

}  // namespace
