#include <gtest/gtest.h>

#include <regex>

#include "Log.h"
#include "TestSupport.h"

namespace {

std::string hooked;  // what the hook was handed last
void hook(std::uint32_t level, const char* file, int line, const char* text) {
    hooked = std::to_string(level) + " " + file + ":" + std::to_string(line) + " " + text;
}

// Console: level colour, the category form's place and category (if any), message, reset; a line
// cut at 1024 bytes ends in "..." and a newline only if its format did; levels 8 and up go nowhere.
// The file gets no colours, nor the category form's time stamp. A hook takes all logLine's lines.
TEST(Log, Lines) {
    // clang-format off
    const std::string big(2000, 'x'), kept = big.substr(0, 1023 - 10 - 9), cut = "T " + big.substr(0, 1013);
    const std::string at = "T In f.cpp, line 7: \033[31m\033[1m", red = "T \033[31m\033[1mx\033[0m";
    const std::tuple<const char*, std::uint32_t, std::string, std::string, std::string, const char*> cases[] = {
        // category ("" for logLine), level, format, console, file, what a hook gets (no hook when null)
        {"", 4, "disk %s at 97%%\n", "T \033[33m\033[1mdisk full at 97%\n\033[0m", "T disk full at 97%\n", nullptr},
        {"", 0, "x", red, "T x", nullptr}, {"", 3, "x", red, "T x", nullptr}, {"", 5, "x", "T \033[36m\033[1mx\033[0m", "T x", nullptr},
        {"", 6, "x", "T \033[32m\033[1mx\033[0m", "T x", nullptr}, {"", 7, "x", "T \033[35m\033[1mx\033[0m", "T x", nullptr},
        {"zc", 3, "v %s\n", at + " zc: v full\n\033[0m", "In f.cpp, line 7:  zc: v full\n", nullptr},
        {nullptr, 3, "v %s\n", at + "v full\n\033[0m", "In f.cpp, line 7: v full\n", nullptr},
        {"", 6, big + "\n", "T \033[32m\033[1m" + kept + "\033[0m...\n", cut, nullptr}, {"", 6, big, "T \033[32m\033[1m" + kept + "\033[0m", cut, nullptr},
        {"", 8, "v\n", "", "", nullptr}, {"c", 9, "v\n", "", "", nullptr}, {"c", 8, "v\n", "", "", ""}, {"", 12, "v %s\n", "", "", "12 f.cpp:7 v full\n"},
        {"c", 3, "v %s\n", at + " c: v full\n\033[0m", "In f.cpp, line 7:  c: v full\n", ""}};
    // clang-format on
    vlm::test::TempDir dir;
    for (const auto& [category, level, format, console, file, hookGets] : cases) {
        hooked.clear();
        vlm::logHook = hookGets ? hook : nullptr;
        vlm::logFile = std::fopen(dir.file("log.txt").c_str(), "w");
        const std::string out =
            vlm::test::capturedOutput([&, category = category, level = level, &format = format] {
                if (category && !*category)
                    vlm::logLine(level, "f.cpp", 7, format.c_str(), "full");
                else
                    vlm::logCategoryLine(category, level, "f.cpp", 7, format.c_str(), "full");
            });
        std::fclose(vlm::logFile);
        vlm::logFile = nullptr, vlm::logHook = nullptr;
        const std::regex stamp(R"(\d\d:\d\d:\d\d  )");  // shown as "T "
        EXPECT_EQ(std::regex_replace(out, stamp, "T "), console) << format.substr(0, 10) << level;
        EXPECT_EQ(std::regex_replace(vlm::test::readFile(dir.file("log.txt")), stamp, "T "), file);
        EXPECT_EQ(hooked, hookGets ? hookGets : "") << level;
    }
}

}  // namespace
