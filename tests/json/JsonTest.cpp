#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <thread>

#include "TestSupport.h"
#include "json/Json.h"
#include "rapidjson/stringbuffer.h"
#include "rapidjson/writer.h"

namespace {

using namespace vlm::json;
using vlm::test::capturedOutput;
using S = std::string;

std::string text(const Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return buffer.GetString();
}

// Lookups: names match on length and bytes, absence is silent, a non-object says so, one
// shared null stands for anything missing, ensurePath makes (or repairs) empty objects. A copy
// without an allocator gives null; a prohibited one refuses a deep copy. Parsing and deep copies
// follow the string rule, a prohibited pool parses all the same; a failed parse (too deep for
// instance) keeps the document.
TEST(Json, Calls) {
    const std::tuple<const char*, std::function<S(Document&)>, S, S> cases[] = {
        // clang-format off
        {R"({"s":{"ip":"1.2"}})", [](Document& d) { return text(*findPath(&d, {"s", "ip"})); }, R"("1.2")", ""},
        {R"({"a\u0000b":1,"ipx":0})", [](Document& d) { return S(!findPath(&d, {"a"}) && !findPath(&d, {"ip"}) ? "none" : ""); }, "none", ""},
        {"{}", [](Document& d) { return S(findPath(&d, {}) == &d && !findPath(nullptr, {"a"}) ? "root" : ""); }, "root", ""},
        {R"({"s":5})", [](Document& d) { return S(findPath(&d, {"s", "ip"}) ? "" : "none"); }, "none", "not an object [ip]\n"},
        {"[1]", [](Document& d) { return std::to_string(hasMember(d, "mode")); }, "0", "not an object [mode]\n"},
        {R"({"mode":4})", [](Document& d) { return std::to_string(hasMember(d, "mode")) + std::to_string(hasMember(d, "x")); }, "10", ""},
        {R"({"ip":"a"})", [](Document& d) { return text(checkedMember(std::as_const(d), "ip")); }, R"("a")", ""},
        {R"({"p":[]})", [](Document& d) { return S(&checkedMember(d, "name") == &checkedMember(d["p"], "name") ? "shared" : ""); }, "shared", "rapidJson: member name not found; please fix it!\nnot an object [name]\nrapidJson: member name not found; please fix it!\n"},
        {R"({"m":1,"s":{}})", [](Document& d) { ensurePath(d, {"s", "ip"}); ensurePath(d, {"s", "ip"}); return text(d); }, R"({"m":1,"s":{"ip":{}}})", ""},
        {R"({"s":"x"})", [](Document& d) { ensurePath(d, {"s", "ip"}); return text(d); }, R"({"s":{"ip":{}}})", "not an object [ip]\n"},
        {"not json", [](Document& d) { ensurePath(d, {"mode"}).SetInt(2); return text(d); }, R"({"mode":2})", "not an object [mode]\n"},
        {"[1]", [](Document& d) { d.GetAllocator().allocationProhibited = true; copyValue(d, Document().SetObject(), &d.GetAllocator()); return text(d); }, "[1]", "rapidJson: CopyFrom Allocation is prohibited from this allocator\n"},
        {"1", [](Document&) { Value v(rapidjson::StringRef("x")); setString(v, "abc", 3, true, nullptr, 64); return text(v); }, "null", "rapidjson: SetStringRaw(abc): error: allocator((nil)) missing or max_length(64) == 0\n"},
        {"", [](Document& d) { d.max_length = 31; parseString(d, R"("abc")"); return text(d) + std::to_string(d.GetAllocator().Size()); }, R"("abc"32)", ""},
        {"", [](Document& d) { Document s; parseString(s, R"("abc")"); copyValue(d, s, &d.GetAllocator(), 31); return std::to_string(d.GetAllocator().Size()); }, "32", ""},
        {"", [](Document& d) { d.GetAllocator().allocationProhibited = true; const bool ok = parseString(d, R"({"a":"bc"})"); return std::to_string(ok) + text(d); }, R"(1{"a":"bc"})", "rapidjson: SetStringRaw(a): error: allocation prohibited\nrapidJson: Malloc: allocation prohibited, size = 2\nrapidJson: MemoryPoolAllocator: "},
        {"[]", [](Document& d) { const bool ok = parseString(d, (S(513, '[') + S(513, ']')).c_str()); return std::to_string(ok) + text(d); }, "0[]", ""},  // stack-safe depth
        // clang-format on
    };
    for (const auto& [json, call, result, said] : cases) {  // document, call, its result, said
        Document document;
        parseString(document, json);
        S got;
        const S out = capturedOutput([&, &call = call] { got = call(document); });
        EXPECT_EQ(out.substr(0, out.find("number of allocator: ")), said) << json;  // up to figures
        EXPECT_EQ(got, result) << json;
    }
}

// The string rule: a reference, or a copy of length + 1 bytes, or of max_length + 1 grown to
// fit (pool blocks are multiples of four). A prohibited pool reports each allocation, and
// serves all the same.
TEST(Json, StringRule) {
    // clang-format off
    const std::tuple<const char*, bool, std::uint32_t, std::size_t, std::string> cases[] = {
        // text, copy, max_length, pool bytes, what a prohibited pool says up to its figures
        {"pluginA", false, 0, 0, ""}, {"pluginA", true, 0, 8, ""}, {"abc", true, 31, 32, ""}, {"abc", true, 3, 4, ""}, {"abcdefgh", true, 3, 12, ""},
        {"abcdefgh", true, 0, 12, "rapidjson: SetStringRaw(abcdefgh): error: allocation prohibited\nrapidJson: Malloc: allocation prohibited, size = 9\nrapidJson: MemoryPoolAllocator: "}};
    // clang-format on
    for (const auto& [text, copy, maxLength, poolBytes, said] : cases) {
        Allocator pool;
        pool.allocationProhibited = !said.empty();
        Value value;
        vlm::test::StdoutCapture capture;
        setString(value, text, std::strlen(text), copy, &pool, maxLength);
        const std::string out = capture.text();
        EXPECT_EQ(out.substr(0, out.find("number of allocator: ")), said);
        EXPECT_STREQ(value.GetString(), text);
        EXPECT_EQ(value.GetString() == text, !copy) << text;
        EXPECT_EQ(pool.Size(), poolBytes) << text << maxLength;
    }
}

// Chunks of the capacity or of the request's rounded size, a caller's buffer served first and
// kept, whole chunks given back by Clear; Realloc copies a block that is not the newest; figures
// exact across threads.
TEST(Json, Pool) {
    const AllocatorStatistics before = allocatorStatistics();
    alignas(8) char buffer[1024];
    {
        MemoryPoolAllocator pool(buffer, sizeof buffer, 1024);
        char* inside = static_cast<char*>(pool.Malloc(5));
        pool.Malloc(1000);  // no room left: a chunk of the capacity
        pool.Malloc(5001);  // more than the capacity: a chunk of its own rounded size
        EXPECT_EQ(allocatorStatistics().memory, before.memory + 1024 + 5004);
        pool.Clear();
        EXPECT_EQ(allocatorStatistics().memory, before.memory);
        EXPECT_EQ(pool.Malloc(5), inside);
        char* block = static_cast<char*>(std::memcpy(pool.Malloc(8), "1234567", 8));
        pool.Malloc(4);
        char* moved = static_cast<char*>(pool.Realloc(block, 8, 40));
        EXPECT_NE(moved, block);
        EXPECT_STREQ(moved, "1234567");
    }
    const std::string big = '"' + std::string(70000, 'x') + '"';  // parsed while others count
    auto work = [&big] {
        for (int i = 0; i < 200; ++i)
            parseString(*std::make_unique<Document>(), big.c_str());
    };
    std::thread a(work), b(work), c(work), d(work);
    for (std::thread* thread : {&a, &b, &c, &d})
        thread->join();
    EXPECT_EQ(allocatorStatistics().allocators, before.allocators);
    EXPECT_EQ(allocatorStatistics().memory, before.memory);
}

// Whatever the bytes of a mutated document, a parse either fails and leaves the document as it
// was, or gives one that writes and deep-copies the same.
TEST(Json, FuzzNeverBreaksTheDocument) {
    std::mt19937 random(20261123);
    for (int round = 0; round < 4000; ++round) {
        std::string input =
            R"({"p":[{"name":"a.dll","d":"A \"q\" \u00e9","on":true}],"x":[1,-2.5e3,18446744073709551615,1e400,null,[[]],{}]})";
        for (int edits = 1 + random() % 6; edits > 0; --edits)
            input[random() % input.size()] = "{}[]\",:\\0-.etn \xff"[random() % 16];
        Document document, copy;
        parseString(document, R"({"kept":1})");
        document.max_length = random() % 40;
        const bool parsed = parseString(document, input.c_str());
        ASSERT_EQ(text(document) != R"({"kept":1})", parsed) << input;  // kept unless parsed
        copyValue(copy, document, &copy.GetAllocator(), document.max_length);
        ASSERT_EQ(text(copy), text(document)) << input;
    }
}

}  // namespace
