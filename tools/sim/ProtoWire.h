#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace android::tools::sim::proto {

// The protocol buffer wire format, read without a schema: field numbers and
// wire types, with every length checked against the bytes that remain.
enum WireType : uint8_t { kVarint = 0, kFixed64 = 1, kBytes = 2, kFixed32 = 5 };

struct Field {
    uint32_t number = 0;
    WireType wire = kVarint;
    uint64_t value = 0;            // a varint or fixed field, as read
    const uint8_t* data = nullptr; // a length-delimited field's bytes
    size_t size = 0;

    // int32/int64 fields are sign-extended varints.
    int64_t asInt64() const { return static_cast<int64_t>(value); }
    int32_t asInt32() const { return static_cast<int32_t>(static_cast<uint32_t>(value)); }
    std::string asString() const { return std::string(reinterpret_cast<const char*>(data), size); }
};

// A varint of at most 10 bytes from [*p, end); false when it runs past end
// or past 64 bits. Advances *p on success.
bool readVarint(const uint8_t** p, const uint8_t* end, uint64_t* value);

// The fields of one message, in the order they were written. next() is false
// at the end of the message and on damage; error() tells them apart.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : mPos(data), mBegin(data), mEnd(data + size) {}

    bool next(Field* field);
    // Null at a clean end; else what is wrong with the field at offset().
    const char* error() const { return mError; }
    // The offset of the field being read, from the start of the message.
    size_t offset() const { return static_cast<size_t>(mFieldStart - mBegin); }

private:
    const uint8_t* mPos;
    const uint8_t* mBegin;
    const uint8_t* mEnd;
    const uint8_t* mFieldStart = nullptr;
    const char* mError = nullptr;
};

} // namespace android::tools::sim::proto
