#include "tools/check/Utf8.h"

namespace android::tools {
namespace {

// The length of the well-formed sequence at `i`, or 0 when the byte there
// does not start one (RFC 3629's table of well-formed byte sequences).
size_t sequenceLength(const std::string& text, size_t i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) return 1;
    size_t length = 0;
    unsigned char low = 0x80; // the range of the byte after the lead
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;  // overlong
        if (lead == 0xED) high = 0x9F; // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;  // overlong
        if (lead == 0xF4) high = 0x8F; // past U+10FFFF
    } else {
        return 0;
    }
    if (text.size() - i < length || byte(i + 1) < low || byte(i + 1) > high) return 0;
    for (size_t k = 2; k < length; ++k) {
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
    }
    return length;
}

} // namespace

size_t firstInvalidUtf8(const std::string& text) {
    for (size_t i = 0; i < text.size();) {
        const size_t length = sequenceLength(text, i);
        if (length == 0) return i;
        i += length;
    }
    return std::string::npos;
}

std::string validUtf8(const std::string& text) {
    if (firstInvalidUtf8(text) == std::string::npos) return text;
    std::string out;
    for (size_t i = 0; i < text.size();) {
        const size_t length = sequenceLength(text, i);
        if (length == 0) {
            out += kReplacementCharacter;
            ++i;
        } else {
            out.append(text, i, length);
            i += length;
        }
    }
    return out;
}

} // namespace android::tools
