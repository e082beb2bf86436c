#pragma once
// Parsing through the program's string rule: every string and member name is copied into the
// document's pool by setString, then handed to the document as a reference.

#include "rapidjson/reader.h"

namespace vlm::json {

namespace detail {

/// Deeper nesting than this is refused, so that no later recursion can exhaust the stack.
constexpr unsigned kMaxNesting = 512;

template <typename Handler>
class StringRuleHandler {
public:
    StringRuleHandler(Handler& handler, Allocator* allocator, std::uint32_t maxLength)
        : handler_(handler), allocator_(allocator), maxLength_(maxLength) {}

    bool Null() { return handler_.Null(); }
    bool Bool(bool b) { return handler_.Bool(b); }
    bool Int(int i) { return handler_.Int(i); }
    bool Uint(unsigned u) { return handler_.Uint(u); }
    bool Int64(std::int64_t i) { return handler_.Int64(i); }
    bool Uint64(std::uint64_t u) { return handler_.Uint64(u); }
    bool Double(double d) { return handler_.Double(d); }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool copy) {
        return String(text, length, copy);
    }
    bool String(const char* text, rapidjson::SizeType length, bool) {
        Value copied;
        setString(copied, text, length, true, allocator_, maxLength_);
        if (!copied.IsString())
            return handler_.Null();
        return handler_.String(copied.GetString(), length, false);
    }
    bool Key(const char* text, rapidjson::SizeType length, bool) {
        Value copied;
        setString(copied, text, length, true, allocator_, maxLength_);
        if (!copied.IsString())
            return false;
        return handler_.Key(copied.GetString(), length, false);
    }
    bool StartObject() { return ++depth_ <= kMaxNesting && handler_.StartObject(); }
    bool EndObject(rapidjson::SizeType members) {
        --depth_;
        return handler_.EndObject(members);
    }
    bool StartArray() { return ++depth_ <= kMaxNesting && handler_.StartArray(); }
    bool EndArray(rapidjson::SizeType elements) {
        --depth_;
        return handler_.EndArray(elements);
    }

private:
    Handler& handler_;
    Allocator* allocator_;
    std::uint32_t maxLength_;
    unsigned depth_ = 0;
};

}  // namespace detail

template <typename InputStream>
bool parseStream(Document& document, InputStream& stream) {
    bool parsed = false;
    auto generator = [&](Document::Base& handler) {
        detail::StringRuleHandler<Document::Base> rule(handler, &document.GetAllocator(),
                                                       document.max_length);
        rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, rapidjson::CrtAllocator>
            reader;
        // Iterative parsing: no input, however deep, can overflow the stack.
        parsed = !reader.template Parse<rapidjson::kParseIterativeFlag>(stream, rule).IsError();
        return parsed;
    };
    document.Populate(generator);
    return parsed;
}

}  // namespace vlm::json
