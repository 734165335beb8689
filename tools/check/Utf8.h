#pragma once

#include <cstddef>
#include <string>

namespace android::tools {

// The Unicode replacement character U+FFFD, in UTF-8.
constexpr const char* kReplacementCharacter = "\xEF\xBF\xBD";

// The offset of the first byte of `text` that is not part of a well-formed
// UTF-8 sequence (an overlong form, a surrogate or a code point past U+10FFFF
// included), or std::string::npos when there is none.
size_t firstInvalidUtf8(const std::string& text);

// `text` with each byte that is not part of a well-formed UTF-8 sequence
// replaced by U+FFFD, so that a JSON reader accepts it.
std::string validUtf8(const std::string& text);

} // namespace android::tools
