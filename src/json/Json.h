#pragma once
// The program's layer on RapidJSON: checked path and member access, the string-setting rule
// and the memory pool with its allocation-prohibited flag and process-wide statistics.

#include <cstdint>
#include <initializer_list>
#include <memory>

#include "json/MemoryPoolAllocator.h"
#include "rapidjson/document.h"

namespace vlm::json {

using Allocator = MemoryPoolAllocator;
using Value = rapidjson::GenericValue<rapidjson::UTF8<>, Allocator>;

/// \brief A document whose copied strings follow the program's string rule.
class Document : public rapidjson::GenericDocument<rapidjson::UTF8<>, Allocator,
                                                    rapidjson::CrtAllocator> {
public:
    using Base = rapidjson::GenericDocument<rapidjson::UTF8<>, Allocator, rapidjson::CrtAllocator>;
    using Base::Base;

    /// When non-zero, every copied string gets a buffer of max_length + 1 bytes at least.
    std::uint32_t max_length = 0;
};

using DocumentPtr = std::shared_ptr<Document>;

/// Value reached by following keys from the root, or nullptr.
Value* findPath(Document* document, std::initializer_list<const char*> keys);
/// As findPath, creating each missing member as an empty object.
Value& ensurePath(Document& document, std::initializer_list<const char*> keys);
bool hasMember(const Value& value, const char* name);
/// The member's value, or a shared null value (with a message) when there is none.
Value& checkedMember(Value& value, const char* name);
const Value& checkedMember(const Value& value, const char* name);
/// Sets a string value: a reference to text, or (copy) a copy in the allocator's pool of
/// length + 1 bytes, or max_length + 1 bytes grown to fit when max_length is set.
void setString(Value& value, const char* text, rapidjson::SizeType length, bool copy,
               Allocator* allocator, std::uint32_t max_length = 0);
/// Deep copy into allocator's pool, strings by the string rule; refused with a message when
/// the allocator prohibits allocation.
void copyValue(Value& destination, const Value& source, Allocator* allocator,
               std::uint32_t max_length = 0);

/// Parses a stream into the document through the program's string rule.
/// On a parse error the document keeps the value it had before and false is returned.
template <typename InputStream>
bool parseStream(Document& document, InputStream& stream);
bool parseString(Document& document, const char* text);

}  // namespace vlm::json

#include "json/JsonParse.inl"
