#pragma once

#include <string>
#include <vector>

#include <json/json.h>

namespace android::tools {

// A rule file's text parsed with the reader settings the library uses
// (jsoncpp's defaults: comments allowed, the last of duplicate keys wins),
// with the line of every value, for pointing at a JSON path.
class RuleFileText {
public:
    // Parses `text`; on failure returns false and sets *error to jsoncpp's text.
    bool parse(std::string text, std::string* error);

    const Json::Value& root() const { return mRoot; }
    // The 1-based line where `value` starts; 0 when it is not known.
    int lineOf(const Json::Value& value) const;
    // The line of the value at `path`, or of the deepest part of it that exists.
    int lineOfPath(const std::string& path) const;

private:
    std::string mText;
    Json::Value mRoot;
    std::vector<size_t> mLineStarts;
};

} // namespace android::tools
