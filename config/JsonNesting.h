#pragma once

#include <cstddef>
#include <string>

namespace android {

// True when arrays and objects in the JSON `text` nest deeper than
// `maxDepth`. Brackets inside strings and comments do not count. Counted
// before a parser sees the text: jsoncpp gives up on deep nesting by throwing,
// which a build without exceptions cannot survive.
inline bool jsonNestsDeeperThan(const std::string& text, size_t maxDepth) {
    size_t depth = 0;
    const size_t size = text.size();
    for (size_t i = 0; i < size; ++i) {
        const char c = text[i];
        if (c == '"') {
            // Skips the string, escapes included; an unterminated one ends the text.
            for (++i; i < size && text[i] != '"'; ++i) {
                if (text[i] == '\\') ++i;
            }
        } else if (c == '/' && i + 1 < size && text[i + 1] == '/') {
            while (i < size && text[i] != '\n') ++i;
        } else if (c == '/' && i + 1 < size && text[i + 1] == '*') {
            const size_t end = text.find("*/", i + 2);
            i = end == std::string::npos ? size : end + 1;
        } else if (c == '[' || c == '{') {
            if (++depth > maxDepth) {
                return true;
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return false;
}

} // namespace android
