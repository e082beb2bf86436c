#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "StdoutCapture.h"
#include "json/Json.h"
#include "rapidjson/memorystream.h"
#include "rapidjson/stringbuffer.h"
#include "rapidjson/writer.h"

namespace {

using vlm::json::Document;
using vlm::json::Value;
using vlm::test::capturedOutput;

std::string serialise(const Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return buffer.GetString();
}

std::unique_ptr<Document> parsed(const char* text) {
    auto document = std::make_unique<Document>();
    EXPECT_TRUE(vlm::json::parseString(*document, text)) << text;
    return document;
}

// The two lines a prohibited pool prints for one allocation, with today's figures.
std::string prohibitedMalloc(int size) {
    const vlm::json::AllocatorStatistics figures = vlm::json::allocatorStatistics();
    char text[256];
    std::snprintf(text, sizeof text,
                  "rapidJson: Malloc: allocation prohibited, size = %i\n"
                  "rapidJson: MemoryPoolAllocator: number of allocator: %i, memory allocated: "
                  "%i\n",
                  size, figures.allocators, figures.memory);
    return text;
}

std::string prohibitedString(const std::string& text) {
    return "rapidjson: SetStringRaw(" + text + "): error: allocation prohibited\n";
}

// findPath, hasMember, checkedMember

TEST(JsonLookupTest, FindPathFollowsKeysAndTreatsAbsenceSilently) {
    auto document = parsed(R"({"server":{"ip":"10.1.2.3"},"mode":2,"a\u0000b":1,"ipx":0})");
    std::string out = capturedOutput([&] {
        EXPECT_EQ(vlm::json::findPath(document.get(), {}), document.get());
        Value* ip = vlm::json::findPath(document.get(), {"server", "ip"});
        ASSERT_NE(ip, nullptr);
        EXPECT_STREQ(ip->GetString(), "10.1.2.3");
        EXPECT_EQ(vlm::json::findPath(document.get(), {"mode"})->GetInt(), 2);
        // Names match on length and bytes, not on a common prefix.
        EXPECT_EQ(vlm::json::findPath(document.get(), {"a"}), nullptr);
        EXPECT_EQ(vlm::json::findPath(document.get(), {"ip"}), nullptr);
        EXPECT_EQ(vlm::json::findPath(document.get(), {"discovery", "filtering"}), nullptr);
        EXPECT_EQ(vlm::json::findPath(nullptr, {"mode"}), nullptr);
    });
    EXPECT_EQ(out, "");
}

TEST(JsonLookupTest, FindPathThroughANonObjectNamesTheNextKey) {
    auto document = parsed(R"({"server":5,"list":[1]})");
    std::string out = capturedOutput([&] {
        EXPECT_EQ(vlm::json::findPath(document.get(), {"server", "ip"}), nullptr);
        EXPECT_EQ(vlm::json::findPath(document.get(), {"list", "0"}), nullptr);
    });
    EXPECT_EQ(out, "not an object [ip]\nnot an object [0]\n");

    auto array = parsed("[1,2]");
    out = capturedOutput([&] { EXPECT_EQ(vlm::json::findPath(array.get(), {"mode"}), nullptr); });
    EXPECT_EQ(out, "not an object [mode]\n");
}

TEST(JsonLookupTest, HasMemberReportsNonObjects) {
    auto document = parsed(R"({"mode":4,"list":[]})");
    std::string out = capturedOutput([&] {
        EXPECT_TRUE(vlm::json::hasMember(*document, "mode"));
        EXPECT_FALSE(vlm::json::hasMember(*document, "server"));
    });
    EXPECT_EQ(out, "");
    out = capturedOutput([&] { EXPECT_FALSE(vlm::json::hasMember((*document)["list"], "x")); });
    EXPECT_EQ(out, "not an object [x]\n");
}

TEST(JsonLookupTest, CheckedMemberGivesOneSharedNullForAnythingMissing) {
    auto document = parsed(R"({"ip":"10.0.0.1","port":[]})");
    Value* first = nullptr;
    Value* second = nullptr;
    std::string out = capturedOutput([&] {
        first = &vlm::json::checkedMember(*document, "name");
        second = &vlm::json::checkedMember(*document, "descr");
    });
    EXPECT_EQ(out,
              "rapidJson: member name not found; please fix it!\n"
              "rapidJson: member descr not found; please fix it!\n");
    EXPECT_TRUE(first->IsNull());
    EXPECT_EQ(first, second);

    out = capturedOutput(
        [&] { EXPECT_EQ(&vlm::json::checkedMember((*document)["port"], "number"), first); });
    EXPECT_EQ(out,
              "not an object [number]\n"
              "rapidJson: member number not found; please fix it!\n");

    const Document& constant = *document;
    out = capturedOutput([&] {
        EXPECT_STREQ(vlm::json::checkedMember(constant, "ip").GetString(), "10.0.0.1");
        EXPECT_EQ(&vlm::json::checkedMember(*document, "ip"),
                  vlm::json::findPath(document.get(), {"ip"}));
    });
    EXPECT_EQ(out, "");
}

// setString

TEST(JsonStringTest, ReferenceOrCopy) {
    vlm::json::Allocator pool;
    const char text[] = "pluginA.dll";
    Value referenced;
    vlm::json::setString(referenced, text, 7, false, &pool);
    EXPECT_EQ(referenced.GetString(), text);
    EXPECT_EQ(referenced.GetStringLength(), 7u);
    EXPECT_EQ(pool.Size(), 0u);

    Value copied;
    vlm::json::setString(copied, text, 7, true, &pool);
    EXPECT_NE(copied.GetString(), text);
    EXPECT_STREQ(copied.GetString(), "pluginA");
    EXPECT_EQ(pool.Size(), 8u);
}

TEST(JsonStringTest, MaxLengthReservesABufferAndGrowsOnlyForLongerText) {
    vlm::json::Allocator pool;
    Value value;
    vlm::json::setString(value, "abc", 3, true, &pool, 31);
    EXPECT_STREQ(value.GetString(), "abc");
    EXPECT_EQ(pool.Size(), 32u);

    vlm::json::Allocator exact;
    vlm::json::setString(value, "abc", 3, true, &exact, 3);
    EXPECT_EQ(exact.Size(), 4u);

    vlm::json::Allocator longer;
    vlm::json::setString(value, "abcdefgh", 8, true, &longer, 3);
    EXPECT_STREQ(value.GetString(), "abcdefgh");
    EXPECT_EQ(value.GetStringLength(), 8u);
    EXPECT_EQ(longer.Size(), 12u);  // the 4-byte buffer grew in place to 9 bytes, rounded
}

TEST(JsonStringTest, MissingAllocatorLeavesNull) {
    Value value;
    std::string out = capturedOutput([&] { vlm::json::setString(value, "abc", 3, true, nullptr); });
    EXPECT_EQ(
        out,
        "rapidjson: SetStringRaw(abc): error: allocator((nil)) missing or max_length(3) == 0\n");
    EXPECT_TRUE(value.IsNull());

    out = capturedOutput([&] { vlm::json::setString(value, "abc", 3, true, nullptr, 64); });
    EXPECT_EQ(out,
              "rapidjson: SetStringRaw(abc): error: allocator((nil)) missing or max_length(64) "
              "== 0\n");
    EXPECT_TRUE(value.IsNull());
}

TEST(JsonStringTest, ProhibitedAllocatorWarnsAndCopiesAllTheSame) {
    vlm::json::Allocator pool;
    pool.allocationProhibited = true;
    Value value;
    const std::string expected = prohibitedString("10.0.0.7") + prohibitedMalloc(9);
    std::string out =
        capturedOutput([&] { vlm::json::setString(value, "10.0.0.7", 8, true, &pool); });
    EXPECT_EQ(out, expected);
    EXPECT_STREQ(value.GetString(), "10.0.0.7");
}

// parsing

TEST(JsonParseTest, CopiesEveryStringThroughTheDocumentsRule) {
    Document plain;
    ASSERT_TRUE(vlm::json::parseString(plain, R"({"k":"v"})"));
    EXPECT_EQ(plain.GetAllocator().Size(), 4u + 4u + 32u);  // two names, one member table

    Document reserved;
    reserved.max_length = 15;
    ASSERT_TRUE(vlm::json::parseString(reserved, R"({"k":"v"})"));
    EXPECT_EQ(reserved.GetAllocator().Size(), 16u + 16u + 32u);
    EXPECT_EQ(serialise(reserved), R"({"k":"v"})");
}

TEST(JsonParseTest, StreamInput) {
    std::string text = R"({"plugins":[{"name":"a.dll","descr":"A","enabled":true}],"mode":1})";
    rapidjson::MemoryStream stream(text.data(), text.size());
    Document document;
    ASSERT_TRUE(vlm::json::parseStream(document, stream));
    EXPECT_EQ(serialise(document), text);
}

TEST(JsonParseTest, BadInputLeavesTheDocumentAsItWas) {
    for (const char* bad : {"", "{", R"({"a":})", R"({"a" 1})", "[1,]", "nul", R"("abc)",
                            R"({"a":1}x)", "\xff\xfe"}) {
        Document document;
        std::string out =
            capturedOutput([&] { EXPECT_FALSE(vlm::json::parseString(document, bad)) << bad; });
        EXPECT_TRUE(document.IsNull()) << bad;
        EXPECT_EQ(out, "") << bad;
    }
    auto document = parsed(R"({"mode":2})");
    EXPECT_FALSE(vlm::json::parseString(*document, R"({"mode":)"));
    EXPECT_EQ(serialise(*document), R"({"mode":2})");
}

TEST(JsonParseTest, DeepNestingIsRefusedWithoutCrashing) {
    Document shallow;
    std::string text = std::string(100, '[') + std::string(100, ']');
    EXPECT_TRUE(vlm::json::parseString(shallow, text.c_str()));

    for (const std::string& deep :
         {std::string(200000, '['), std::string(100000, '[') + std::string(100000, ']'),
          std::string(50000, '{')}) {
        Document document;
        EXPECT_FALSE(vlm::json::parseString(document, deep.c_str()));
        EXPECT_TRUE(document.IsNull());
    }
    std::string objects;
    for (int i = 0; i < 100000; ++i)
        objects += R"({"a":)";
    Document document;
    EXPECT_FALSE(vlm::json::parseString(document, objects.c_str()));
    EXPECT_TRUE(document.IsNull());
}

TEST(JsonParseTest, ProhibitedAllocatorStillParsesButReportsEachAllocation) {
    Document document;
    document.GetAllocator().allocationProhibited = true;
    const std::string expected = prohibitedString("a") + prohibitedMalloc(2) +
                                 prohibitedString("bc") + prohibitedMalloc(3) +
                                 prohibitedMalloc(32);
    std::string out =
        capturedOutput([&] { EXPECT_TRUE(vlm::json::parseString(document, R"({"a":"bc"})")); });
    EXPECT_EQ(out, expected);
    EXPECT_EQ(serialise(document), R"({"a":"bc"})");
}

// copyValue

TEST(JsonCopyTest, DeepCopyOutlivesItsSource) {
    const char* text = R"({"name":"x.dll","list":[1,-2,3.5,true,null,{"ip":"10.0.0.1"}]})";
    auto source = parsed(text);
    Document destination;
    destination.SetObject();
    std::string out = capturedOutput(
        [&] { vlm::json::copyValue(destination, *source, &destination.GetAllocator()); });
    EXPECT_EQ(out, "");
    EXPECT_NE(destination["name"].GetString(), (*source)["name"].GetString());
    source.reset();
    EXPECT_EQ(serialise(destination), text);
}

TEST(JsonCopyTest, CopiedStringsFollowMaxLength) {
    auto source = parsed(R"({"s":"ab"})");
    Document plain;
    vlm::json::copyValue(plain, *source, &plain.GetAllocator());
    EXPECT_EQ(plain.GetAllocator().Size(), 4u + 4u + 32u);

    Document reserved;
    vlm::json::copyValue(reserved, *source, &reserved.GetAllocator(), 15);
    EXPECT_EQ(reserved.GetAllocator().Size(), 16u + 16u + 32u);
    EXPECT_EQ(serialise(reserved), R"({"s":"ab"})");
}

TEST(JsonCopyTest, ProhibitedAllocatorRefusesAndLeavesTheDestination) {
    auto source = parsed(R"({"new":[1,2,3]})");
    auto destination = parsed(R"({"keep":1})");
    vlm::json::Allocator& pool = destination->GetAllocator();
    pool.allocationProhibited = true;
    const std::size_t used = pool.Size();
    std::string out = capturedOutput([&] { vlm::json::copyValue(*destination, *source, &pool); });
    EXPECT_EQ(out, "rapidJson: CopyFrom Allocation is prohibited from this allocator\n");
    EXPECT_EQ(serialise(*destination), R"({"keep":1})");
    EXPECT_EQ(pool.Size(), used);
}

// ensurePath

TEST(JsonEnsurePathTest, CreatesMissingMembersAsEmptyObjects) {
    auto document = parsed(R"({"mode":1,"server":{}})");
    std::string out = capturedOutput([&] {
        EXPECT_EQ(&vlm::json::ensurePath(*document, {}), document.get());
        std::string key = "ip";
        Value& ip = vlm::json::ensurePath(*document, {"server", key.c_str()});
        key = "zz";  // the member name is the document's own copy
        EXPECT_TRUE(ip.IsObject());
        EXPECT_EQ(&ip, vlm::json::findPath(document.get(), {"server", "ip"}));
        vlm::json::setString(ip, "10.0.0.9", 8, true, &document->GetAllocator());
        vlm::json::ensurePath(*document, {"discovery", "filtering"});
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(serialise(*document),
              R"({"mode":1,"server":{"ip":"10.0.0.9"},"discovery":{"filtering":{}}})");

    // An existing path is only followed.
    out = capturedOutput([&] {
        EXPECT_EQ(&vlm::json::ensurePath(*document, {"server", "ip"}),
                  vlm::json::findPath(document.get(), {"server", "ip"}));
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ((*document)["server"].MemberCount(), 1u);
}

TEST(JsonEnsurePathTest, ManyMembersOnOneObject) {
    Document document;
    document.SetObject();
    std::vector<std::string> names;
    for (int i = 0; i < 100; ++i)
        names.push_back("member" + std::to_string(i));
    for (const std::string& name : names)
        vlm::json::ensurePath(document, {name.c_str(), "inner"});
    ASSERT_EQ(document.MemberCount(), 100u);
    for (const std::string& name : names)
        EXPECT_NE(vlm::json::findPath(&document, {name.c_str(), "inner"}), nullptr) << name;
}

TEST(JsonEnsurePathTest, NonObjectRootBecomesAnEmptyObject) {
    for (const char* text : {"[1,2]", "5", "\"text\"", "null", "not json"}) {
        Document document;
        vlm::json::parseString(document, text);
        std::string out = capturedOutput([&] {
            Value& mode = vlm::json::ensurePath(document, {"mode"});
            mode.SetInt(2);
        });
        EXPECT_EQ(out, "not an object [mode]\n") << text;
        EXPECT_EQ(serialise(document), R"({"mode":2})") << text;
    }
    // The same repair one level down.
    auto document = parsed(R"({"server":"10.0.0.1"})");
    std::string out = capturedOutput([&] { vlm::json::ensurePath(*document, {"server", "ip"}); });
    EXPECT_EQ(out, "not an object [ip]\n");
    EXPECT_EQ(serialise(*document), R"({"server":{"ip":{}}})");
}

TEST(JsonEnsurePathTest, ProhibitedAllocatorWarnsForNameAndMemberTable) {
    auto document = parsed("{}");
    document->GetAllocator().allocationProhibited = true;
    const std::string expected =
        prohibitedString("mode") + prohibitedMalloc(5) + prohibitedMalloc(16 * 2 * sizeof(Value));
    std::string out = capturedOutput([&] { vlm::json::ensurePath(*document, {"mode"}); });
    EXPECT_EQ(out, expected);
    EXPECT_EQ(serialise(*document), R"({"mode":{}})");
}

}  // namespace
