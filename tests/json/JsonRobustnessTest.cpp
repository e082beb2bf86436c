#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "json/Json.h"
#include "rapidjson/memorystream.h"
#include "rapidjson/stringbuffer.h"
#include "rapidjson/writer.h"

namespace {

using vlm::json::Document;

std::string serialise(const vlm::json::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return buffer.GetString();
}

std::string mutated(std::string text, std::mt19937& random) {
    const char tokens[] = "{}[]\",:\\0123456789-+.eEtrufalsn \t\n\x80\xff";
    std::uniform_int_distribution<int> kind(0, 4);
    const int edits = 1 + static_cast<int>(random() % 6);
    for (int i = 0; i < edits; ++i) {
        const std::size_t at = text.empty() ? 0 : random() % (text.size() + 1);
        switch (kind(random)) {
            case 0:  // one byte replaced by anything
                if (at < text.size())
                    text[at] = static_cast<char>(random());
                break;
            case 1:  // a JSON-looking byte inserted
                text.insert(at, 1, tokens[random() % (sizeof tokens - 1)]);
                break;
            case 2:  // cut short
                text.resize(at);
                break;
            case 3:  // a slice repeated, which nests brackets deeper
                if (at < text.size())
                    text.insert(at, text.substr(at, random() % 64));
                break;
            default:  // a byte dropped
                if (at < text.size())
                    text.erase(at, 1);
                break;
        }
    }
    return text;
}

// Whatever the bytes, a parse either fails and leaves the document null, or gives a
// document that writes and deep-copies to the same text.
TEST(JsonRobustnessTest, RandomAndMutatedInputNeverBreaksTheDocument) {
    const std::vector<std::string> seeds = {
        R"({"mode":4,"server":{"ip":"10.0.0.1"}})",
        R"({"discovery":{"filtering":[{"hardware_id":"00:11:22:33:44:55"}]}})",
        R"({"plugins":[{"name":"a.dll","descr":"A \"quoted\" \u00e9","enabled":true},)"
        R"({"name":"b.dll","descr":"","enabled":false}]})",
        R"([1,-2.5e3,18446744073709551615,-9223372036854775808,1e400,null,[[[]]],{}])",
        R"({"Config":{"Plugins":[{"Name":"x","Major":1,"Minor":2}],"PluginDirectory":["/p"]}})",
    };
    std::mt19937 random(20261123);
    for (int round = 0; round < 4000; ++round) {
        std::string input;
        if (round % 8 == 7) {
            input.resize(random() % 200);
            for (char& byte : input)
                byte = static_cast<char>(random());
        } else {
            input = mutated(seeds[random() % seeds.size()], random);
        }
        Document document;
        document.max_length = round % 3 == 0 ? 0 : static_cast<std::uint32_t>(random() % 40);
        rapidjson::MemoryStream stream(input.data(), input.size());
        if (!vlm::json::parseStream(document, stream)) {
            ASSERT_TRUE(document.IsNull()) << round;
            continue;
        }
        const std::string written = serialise(document);
        Document copy;
        vlm::json::copyValue(copy, document, &copy.GetAllocator(), document.max_length);
        ASSERT_EQ(serialise(copy), written) << round;
    }
}

}  // namespace
