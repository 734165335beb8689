#include "tools/check/RuleFileSyntax.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string_view>

#include "config/PeltoRuleFileReader.h"
#include "tools/check/Utf8.h"

namespace android::tools {
namespace {

constexpr const char* kUtf8Bom = "\xEF\xBB\xBF";
// The first bytes looked at for UTF-16's every-other-byte-zero pattern.
constexpr size_t kUtf16SampleBytes = 64;

Finding syntaxFinding(Finding::Severity severity, Finding::Source source, const char* code,
                      std::string message, std::string fix) {
    Finding finding;
    finding.severity = severity;
    finding.source = source;
    finding.code = code;
    finding.message = std::move(message);
    finding.fix = std::move(fix);
    finding.line = 1;
    finding.column = 1;
    return finding;
}

// "little-endian" or "big-endian" when the text is UTF-16, else nothing.
std::optional<std::string> utf16Order(const std::string& text) {
    if (text.rfind("\xFF\xFE", 0) == 0) return "little-endian, with a byte order mark";
    if (text.rfind("\xFE\xFF", 0) == 0) return "big-endian, with a byte order mark";
    const size_t pairs = std::min(text.size(), kUtf16SampleBytes) / 2;
    size_t evenZeros = 0;
    size_t oddZeros = 0;
    for (size_t i = 0; i < pairs; ++i) {
        evenZeros += text[2 * i] == '\0';
        oddZeros += text[2 * i + 1] == '\0';
    }
    // ASCII text in UTF-16 has a zero in every pair; other scripts in some.
    if (pairs > 0 && evenZeros == 0 && oddZeros * 2 >= pairs) return "little-endian";
    if (pairs > 0 && oddZeros == 0 && evenZeros * 2 >= pairs) return "big-endian";
    return std::nullopt;
}

std::string child(const std::string& path, const std::string& key) {
    return path.empty() ? key : path + "." + key;
}

// A recursive descent over the JSON text that jsoncpp's default settings
// accept (comments included), keeping the positions jsoncpp forgets.
class Scanner {
public:
    explicit Scanner(const std::string& text) : mText(text) {
        for (size_t i = 0; i < text.size(); ++i) {
            if (text[i] == '\n') mLineStarts.push_back(i + 1);
        }
    }

    std::vector<Finding> run() {
        if (mText.rfind(kUtf8Bom, 0) == 0) {
            mPos = 3;
            add(0, "utf8-bom", "",
                "the file starts with a UTF-8 byte order mark: the library skips it, but other "
                "JSON readers reject the file",
                "save the file as UTF-8 without a byte order mark");
        }
        checkUtf8();
        if (value("", 0)) checkEnd();
        std::stable_sort(mFindings.begin(), mFindings.end(),
                         [](const Finding& a, const Finding& b) { return a.line < b.line; });
        return std::move(mFindings);
    }

private:
    void add(size_t offset, const char* code, std::string path, std::string message,
             std::string fix) {
        Finding finding = syntaxFinding(Finding::Severity::Warning, Finding::Source::Lint, code,
                                        std::move(message), std::move(fix));
        const auto next = std::upper_bound(mLineStarts.begin(), mLineStarts.end(), offset);
        finding.line = static_cast<int>(next - mLineStarts.begin());
        finding.column = static_cast<int>(offset - *(next - 1)) + 1;
        finding.path = std::move(path);
        mFindings.push_back(std::move(finding));
    }

    int lineOf(size_t offset) const {
        return static_cast<int>(std::upper_bound(mLineStarts.begin(), mLineStarts.end(), offset) -
                                mLineStarts.begin());
    }

    void checkUtf8() {
        const size_t bad = firstInvalidUtf8(mText);
        if (bad == std::string::npos) return;
        char byte[8];
        std::snprintf(byte, sizeof(byte), "0x%02x", static_cast<unsigned char>(mText[bad]));
        add(bad, "not-utf8", "",
            std::string("the byte ") + byte +
                    " is not UTF-8 (the file may be Latin-1): the library compares names byte "
                    "for byte with the layers' UTF-8 names, so such a name never matches; the "
                    "--json report shows the byte as U+FFFD",
            "save the file as UTF-8");
    }

    // Skips white space and comments; false at the end of the text.
    bool skipSpace() {
        while (mPos < mText.size()) {
            const char c = mText[mPos];
            if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
                ++mPos;
            } else if (mText.compare(mPos, 2, "//") == 0) {
                const size_t end = mText.find('\n', mPos);
                mPos = end == std::string::npos ? mText.size() : end + 1;
            } else if (mText.compare(mPos, 2, "/*") == 0) {
                const size_t end = mText.find("*/", mPos + 2);
                mPos = end == std::string::npos ? mText.size() : end + 2;
            } else {
                return true;
            }
        }
        return false;
    }

    bool value(const std::string& path, size_t depth) {
        if (!skipSpace() || depth > kMaxRuleFileNesting) return false;
        switch (mText[mPos]) {
            case '{':
                return object(path, depth);
            case '[':
                return array(path, depth);
            case '"':
                return string(path, nullptr);
            default:
                return scalar();
        }
    }

    // Reads a string at mPos; its raw text (escapes as written) into *raw.
    bool string(const std::string& path, std::string* raw) {
        const size_t start = ++mPos;
        bool nul = false;
        while (mPos < mText.size() && mText[mPos] != '"') {
            if (mText[mPos] == '\0') nul = true;
            if (mText[mPos] == '\\') {
                nul = nul || mText.compare(mPos, 6, "\\u0000") == 0;
                ++mPos;
            }
            ++mPos;
        }
        if (mPos >= mText.size()) return false;
        if (raw != nullptr) *raw = mText.substr(start, mPos - start);
        if (nul) {
            add(start - 1, "nul-in-string", path,
                std::string(raw != nullptr ? "the key" : "the string") +
                        " holds a NUL byte (a zero byte or \\u0000): no layer's name holds "
                        "one, and the library's log lines stop at it",
                "remove the NUL byte");
        }
        ++mPos;
        return true;
    }

    // A number, true, false or null: up to the next delimiter.
    bool scalar() {
        constexpr std::string_view kDelimiters(",]} \t\r\n/");
        const size_t start = mPos;
        while (mPos < mText.size() && kDelimiters.find(mText[mPos]) == std::string_view::npos) {
            ++mPos;
        }
        return mPos > start;
    }

    // Steps over the bracket that closes an array or an object.
    bool closed() {
        ++mPos;
        return true;
    }

    // At a ',': true when the container closes right after it.
    bool trailingComma(const std::string& path, char close) {
        const size_t comma = mPos++;
        if (!skipSpace() || mText[mPos] != close) return false;
        add(comma, "trailing-comma", path,
            std::string("a comma right before the closing '") + close +
                    "': the library accepts it, but JSON does not, and other readers and tools "
                    "reject the file",
            "remove the comma");
        return true;
    }

    bool array(const std::string& path, size_t depth) {
        ++mPos;
        if (skipSpace() && mText[mPos] == ']') return closed();
        for (size_t index = 0;; ++index) {
            if (!value(path + "[" + std::to_string(index) + "]", depth + 1) || !skipSpace()) {
                return false;
            }
            if (mText[mPos] == ']') return closed();
            if (mText[mPos] != ',') return false;
            if (trailingComma(path, ']')) return closed();
        }
    }

    bool object(const std::string& path, size_t depth) {
        ++mPos;
        std::map<std::string, size_t> keys; // key as written -> its offset
        if (skipSpace() && mText[mPos] == '}') return closed();
        while (true) {
            if (!skipSpace() || mText[mPos] != '"') return false;
            const size_t keyStart = mPos;
            std::string key;
            if (!string(path, &key) || !skipSpace() || mText[mPos++] != ':') return false;
            const auto [earlier, isNew] = keys.emplace(key, keyStart);
            if (!isNew) {
                add(keyStart, "duplicate-key", child(path, key),
                    "\"" + key + "\" is given twice in one object, at line " +
                            std::to_string(lineOf(earlier->second)) + " and line " +
                            std::to_string(lineOf(keyStart)) +
                            ": the library keeps the last and drops the first without a word",
                    "keep one of them, holding what the library should read");
                earlier->second = keyStart;
            }
            if (!value(child(path, key), depth + 1) || !skipSpace()) return false;
            if (mText[mPos] == '}') return closed();
            if (mText[mPos] != ',') return false;
            if (trailingComma(path, '}')) return closed();
        }
    }

    // The library reads the first value and ignores whatever follows it.
    void checkEnd() {
        if (!skipSpace()) return;
        add(mPos, "extra-value", "",
            "more text follows the file's JSON value (a second value, or stray bytes): the "
            "library reads the first value and ignores the rest without a word",
            "remove what follows the first value, or merge it into it");
    }

    const std::string& mText;
    std::vector<size_t> mLineStarts{0};
    size_t mPos = 0;
    std::vector<Finding> mFindings;
};

} // namespace

std::optional<Finding> encodingProblem(const std::string& text) {
    if (text.rfind("\x1F\x8B", 0) == 0) {
        return syntaxFinding(Finding::Severity::Error, Finding::Source::File, "gzip-file",
                             "the file is gzip-compressed (it starts with the bytes 1f 8b); the "
                             "library reads plain JSON text",
                             "decompress it (gunzip) and check the plain file");
    }
    if (const auto order = utf16Order(text)) {
        return syntaxFinding(Finding::Severity::Error, Finding::Source::File, "utf16-file",
                             "the file is UTF-16 (" + *order +
                                     "); the library reads UTF-8 text only, and fails on the "
                                     "zero bytes",
                             "save it as UTF-8 (iconv -f UTF-16 -t UTF-8)");
    }
    return std::nullopt;
}

std::vector<Finding> scanRuleFileSyntax(const std::string& text) {
    return Scanner(text).run();
}

} // namespace android::tools
