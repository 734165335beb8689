#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace android::fuzz {

// Reads a span of the fuzz input front to back; past its end every read gives 0.
class FuzzInput {
public:
    FuzzInput() = default;
    explicit FuzzInput(std::string_view bytes) : mBytes(bytes) {}

    bool empty() const { return mPos >= mBytes.size(); }
    uint8_t byte() { return mPos < mBytes.size() ? static_cast<uint8_t>(mBytes[mPos++]) : 0; }
    uint32_t u32() {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i) value |= static_cast<uint32_t>(byte()) << (8 * i);
        return value;
    }
    uint64_t u64() { return u32() | static_cast<uint64_t>(u32()) << 32; }
    float f32() {
        const uint32_t bits = u32();
        float value;
        std::memcpy(&value, &bits, sizeof(value));
        return value;
    }

private:
    std::string_view mBytes;
    size_t mPos = 0;
};

// Cuts `rest` at the first `separator`: returns what comes before it and
// leaves what follows in `rest` (all of it, and `rest` empty, when absent).
inline std::string_view takeUntil(std::string_view& rest, std::string_view separator) {
    const size_t at = rest.find(separator);
    std::string_view head = rest.substr(0, at);
    rest = at == std::string_view::npos ? std::string_view() : rest.substr(at + separator.size());
    return head;
}

} // namespace android::fuzz
