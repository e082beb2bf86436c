#include "json/Json.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "rapidjson/stringbuffer.h"

namespace vlm::json {

namespace {
// Every diagnostic of the JSON layer goes straight to standard output.
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::fflush(stdout);
}

bool sameName(const Value& name, const char* key, std::size_t length) {
    return name.GetString() == key ||
           (name.GetStringLength() == length && std::memcmp(name.GetString(), key, length) == 0);
}

Value* member(Value& value, const char* key) {
    if (!value.IsObject())
        return nullptr;
    const std::size_t length = std::strlen(key);
    for (auto it = value.MemberBegin(); it != value.MemberEnd(); ++it) {
        if (sameName(it->name, key, length))
            return &it->value;
    }
    return nullptr;
}

Value& sharedNull() {
    static Value null;
    return null;
}

constexpr std::uint32_t kNoMaxLength = 0xFFFFFFFFu;
}  // namespace

Value* findPath(Document* document, std::initializer_list<const char*> keys) {
    if (!document)
        return nullptr;
    Value* current = document;
    for (const char* key : keys) {
        if (!current->IsObject()) {
            say("not an object [%s]\n", key);
            return nullptr;
        }
        current = member(*current, key);
        if (!current)
            return nullptr;
    }
    return current;
}

Value& ensurePath(Document& document, std::initializer_list<const char*> keys) {
    Allocator& allocator = document.GetAllocator();
    Value* current = &document;
    for (const char* key : keys) {
        if (Value* found = member(*current, key)) {
            current = found;
            continue;
        }
        if (!current->IsObject()) {
            say("not an object [%s]\n", key);
            // A writer needs an object here; what stood in its place could not hold members.
            current->SetObject();
        }
        Value name;
        setString(name, key, static_cast<rapidjson::SizeType>(std::strlen(key)), true, &allocator);
        if (!name.IsString())
            return *current;
        current->AddMember(name, Value(rapidjson::kObjectType), allocator);
        current = &checkedMember(*current, key);
    }
    return *current;
}

bool hasMember(const Value& value, const char* name) {
    if (!value.IsObject()) {
        say("not an object [%s]\n", name);
        return false;
    }
    return member(const_cast<Value&>(value), name) != nullptr;
}

Value& checkedMember(Value& value, const char* name) {
    if (!value.IsObject())
        say("not an object [%s]\n", name);
    if (Value* found = member(value, name))
        return *found;
    say("rapidJson: member %s not found; please fix it!\n", name);
    return sharedNull();
}

const Value& checkedMember(const Value& value, const char* name) {
    return checkedMember(const_cast<Value&>(value), name);
}

void setString(Value& value, const char* text, rapidjson::SizeType length, bool copy,
               Allocator* allocator, std::uint32_t max_length) {
    if (!copy) {
        value.SetString(rapidjson::StringRef(text, length));
        return;
    }
    if (!allocator) {
        say("rapidjson: SetStringRaw(%s): error: allocator(%p) missing or max_length(%u) == 0\n",
            text, static_cast<void*>(allocator), max_length ? max_length : length);
        value.SetNull();
        return;
    }
    if (allocator->allocationProhibited)
        say("rapidjson: SetStringRaw(%s): error: allocation prohibited\n", text);
    // The capacity is the pool block itself; the pool frees all blocks at once, so no value
    // needs to remember it.
    std::size_t capacity = (max_length ? max_length : length) + std::size_t{1};
    char* buffer = static_cast<char*>(allocator->Malloc(capacity));
    if (max_length && length > max_length)
        buffer = static_cast<char*>(allocator->Realloc(buffer, capacity, length + std::size_t{1}));
    if (!buffer) {
        value.SetNull();
        return;
    }
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
    value.SetString(rapidjson::StringRef(buffer, length));
}

void copyValue(Value& destination, const Value& source, Allocator* allocator,
               std::uint32_t max_length) {
    if (allocator && allocator->allocationProhibited) {
        say("rapidJson: CopyFrom Allocation is prohibited from this allocator\n");
        return;
    }
    if (!allocator) {
        // A copy must outlive this call, so it needs the caller's pool.
        say("rapidjson: SetStringRaw(%s): error: allocator(%p) missing or max_length(%u) == 0\n",
            "", nullptr, max_length ? max_length : kNoMaxLength);
        return;
    }
    constexpr std::size_t kCopyStackCapacity = 1024;
    Document copy(allocator, kCopyStackCapacity);
    copy.max_length = max_length;
    auto generator = [&](Document::Base& handler) {
        detail::StringRuleHandler<Document::Base> rule(handler, allocator, max_length);
        return source.Accept(rule);
    };
    copy.Populate(generator);
    destination = static_cast<Value&>(copy);
}

bool parseString(Document& document, const char* text) {
    rapidjson::StringStream stream(text);
    return parseStream(document, stream);
}

}  // namespace vlm::json
