#include "tools/sim/ProtoWire.h"

namespace android::tools::sim::proto {

bool readVarint(const uint8_t** p, const uint8_t* end, uint64_t* value) {
    uint64_t result = 0;
    const uint8_t* q = *p;
    for (int shift = 0; shift < 64; shift += 7) {
        if (q == end) return false;
        const uint8_t byte = *q++;
        // The tenth byte holds bit 63 only.
        if (shift == 63 && byte > 1) return false;
        result |= static_cast<uint64_t>(byte & 0x7f) << shift;
        if ((byte & 0x80) == 0) {
            *p = q;
            *value = result;
            return true;
        }
    }
    return false;
}

bool Reader::next(Field* field) {
    mFieldStart = mPos;
    if (mError != nullptr || mPos == mEnd) return false;
    uint64_t key = 0;
    if (!readVarint(&mPos, mEnd, &key)) {
        mError = "a field key cut short or longer than 10 bytes";
        return false;
    }
    if (key >> 3 == 0 || key >> 3 > 0x1fffffff) {
        mError = "a field number out of range";
        return false;
    }
    field->number = static_cast<uint32_t>(key >> 3);
    field->data = nullptr;
    field->size = 0;
    const size_t left = static_cast<size_t>(mEnd - mPos);
    switch (key & 7) {
        case kVarint:
            field->wire = kVarint;
            if (!readVarint(&mPos, mEnd, &field->value)) {
                mError = "a varint cut short or longer than 10 bytes";
                return false;
            }
            return true;
        case kFixed64:
        case kFixed32: {
            const size_t n = (key & 7) == kFixed64 ? 8 : 4;
            if (left < n) {
                mError = "a fixed-size field cut short";
                return false;
            }
            field->wire = n == 8 ? kFixed64 : kFixed32;
            uint64_t value = 0;
            for (size_t i = n; i-- > 0;) value = value << 8 | mPos[i]; // little-endian
            field->value = value;
            mPos += n;
            return true;
        }
        case kBytes: {
            field->wire = kBytes;
            uint64_t size = 0;
            if (!readVarint(&mPos, mEnd, &size)) {
                mError = "a length cut short or longer than 10 bytes";
                return false;
            }
            if (size > static_cast<uint64_t>(mEnd - mPos)) {
                mError = "a length past the end of its message";
                return false;
            }
            field->data = mPos;
            field->size = static_cast<size_t>(size);
            mPos += size;
            return true;
        }
        default:
            mError = "a group or unknown wire type (not written by Perfetto)";
            return false;
    }
}

} // namespace android::tools::sim::proto
