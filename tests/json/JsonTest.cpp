#include <gtest/gtest.h>

#include <cstring>

#include "TestSupport.h"
#include "json/Json.h"
#include "rapidjson/stringbuffer.h"
#include "rapidjson/writer.h"

namespace {

using namespace vlm::json;
using vlm::test::capturedOutput;

std::string text(const Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return buffer.GetString();
}

// Lookups: names match on length and bytes, absence is silent, a non-object says so, one
// shared null stands for anything missing, ensurePath makes (or repairs) empty objects.
TEST(Json, Lookups) {
    using S = std::string;
    const S missing = "rapidJson: member name not found; please fix it!\n";
    struct Case {
        const char* document;
        std::function<S(Document&)> call;
        S result, said;
    } cases[] = {
        // clang-format off
        {R"({"s":{"ip":"1.2"}})", [](Document& d) { return text(*findPath(&d, {"s", "ip"})); }, R"("1.2")", ""},
        {R"({"a\u0000b":1,"ipx":0})", [](Document& d) { return S(!findPath(&d, {"a"}) && !findPath(&d, {"ip"}) ? "none" : ""); }, "none", ""},
        {"{}", [](Document& d) { return S(findPath(&d, {}) == &d && !findPath(nullptr, {"a"}) ? "root" : ""); }, "root", ""},
        {R"({"s":5})", [](Document& d) { return S(findPath(&d, {"s", "ip"}) ? "" : "none"); }, "none", "not an object [ip]\n"},
        {"[1]", [](Document& d) { return std::to_string(hasMember(d, "mode")); }, "0", "not an object [mode]\n"},
        {R"({"mode":4})", [](Document& d) { return std::to_string(hasMember(d, "mode")) + std::to_string(hasMember(d, "x")); }, "10", ""},
        {R"({"ip":"a"})", [](Document& d) { return text(checkedMember(std::as_const(d), "ip")); }, R"("a")", ""},
        {R"({"p":[]})", [](Document& d) { return S(&checkedMember(d, "name") == &checkedMember(d["p"], "name") ? "shared" : ""); }, "shared", missing + "not an object [name]\n" + missing},
        {R"({"m":1,"s":{}})", [](Document& d) { ensurePath(d, {"s", "ip"}); ensurePath(d, {"s", "ip"}); return text(d); }, R"({"m":1,"s":{"ip":{}}})", ""},
        {R"({"s":"x"})", [](Document& d) { ensurePath(d, {"s", "ip"}); return text(d); }, R"({"s":{"ip":{}}})", "not an object [ip]\n"},
        {"not json", [](Document& d) { ensurePath(d, {"mode"}).SetInt(2); return text(d); }, R"({"mode":2})", "not an object [mode]\n"},
        // clang-format on
    };
    for (auto& c : cases) {
        Document document;
        parseString(document, c.document);
        S result;
        EXPECT_EQ(capturedOutput([&] { result = c.call(document); }), c.said) << c.document;
        EXPECT_EQ(result, c.result) << c.document;
    }
}

// The string rule: a reference, or a copy of length + 1 bytes, or of max_length + 1 grown to
// fit; parsing and deep copies follow it; without an allocator the value stays null.
TEST(Json, StringRule) {
    struct Case {
        const char* text;
        bool copy;
        std::uint32_t maxLength;
        std::size_t poolBytes;
    } cases[] = {{"pluginA", false, 0, 0},
                 {"pluginA", true, 0, 8},
                 {"abc", true, 31, 32},
                 {"abc", true, 3, 4},
                 {"abcdefgh", true, 3, 12}};
    for (const auto& c : cases) {
        Allocator pool;
        Value value;
        setString(value, c.text, std::strlen(c.text), c.copy, &pool, c.maxLength);
        EXPECT_STREQ(value.GetString(), c.text);
        EXPECT_EQ(value.GetString() == c.text, !c.copy) << c.text;
        EXPECT_EQ(pool.Size(), c.poolBytes) << c.text << c.maxLength;
    }
    for (std::uint32_t maxLength : {0u, 15u}) {
        Document parsed, copied;
        parsed.max_length = maxLength;
        ASSERT_TRUE(parseString(parsed, R"({"k":"v"})"));
        copyValue(copied, parsed, &copied.GetAllocator(), maxLength);
        // Two strings by the rule and one member table.
        EXPECT_EQ(parsed.GetAllocator().Size(), 2 * (maxLength ? maxLength + 1 : 4) + 32u);
        EXPECT_EQ(copied.GetAllocator().Size(), parsed.GetAllocator().Size());
    }
    Value value;
    EXPECT_EQ(capturedOutput([&] { setString(value, "abc", 3, true, nullptr, 64); }),
              "rapidjson: SetStringRaw(abc): error: allocator((nil)) missing or max_length(64) "
              "== 0\n");
    EXPECT_TRUE(value.IsNull());
}

}  // namespace
