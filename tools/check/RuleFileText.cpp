#include "tools/check/RuleFileText.h"

#include <algorithm>
#include <exception>
#include <memory>

namespace android::tools {

bool RuleFileText::parse(std::string text, std::string* error) {
    mText = std::move(text);
    // jsoncpp skips a UTF-8 byte order mark by moving the start of the text,
    // which would shift every offset it gives by three; blanks keep them.
    if (mText.rfind("\xEF\xBB\xBF", 0) == 0) mText.replace(0, 3, "   ");
    mRoot = Json::Value();
    mLineStarts.assign(1, 0);
    for (size_t i = 0; i < mText.size(); ++i) {
        if (mText[i] == '\n') mLineStarts.push_back(i + 1);
    }
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(mText.data(), mText.data() + mText.size(), &mRoot, error);
    } catch (const std::exception& e) {
        // jsoncpp throws when nesting exceeds its stack limit.
        *error = e.what();
        return false;
    }
}

int RuleFileText::lineOf(const Json::Value& value) const {
    const ptrdiff_t offset = value.getOffsetStart();
    if (offset < 0 || static_cast<size_t>(offset) > mText.size()) return 0;
    const auto next =
            std::upper_bound(mLineStarts.begin(), mLineStarts.end(), static_cast<size_t>(offset));
    return static_cast<int>(next - mLineStarts.begin());
}

int RuleFileText::lineOfPath(const std::string& path) const {
    const Json::Value* value = &mRoot;
    size_t i = 0;
    while (i < path.size()) {
        if (path[i] == '.') {
            ++i;
        } else if (path[i] == '[') {
            const size_t end = path.find(']', i);
            if (end == std::string::npos || !value->isArray()) break;
            const auto index =
                    static_cast<Json::ArrayIndex>(std::stoul(path.substr(i + 1, end - i - 1)));
            if (index >= value->size()) break;
            value = &(*value)[index];
            i = end + 1;
        } else {
            const size_t end = std::min(path.find('.', i), path.find('[', i));
            const std::string key = path.substr(i, end == std::string::npos ? end : end - i);
            if (!value->isObject() || !value->isMember(key)) break;
            value = &(*value)[key];
            i = end == std::string::npos ? path.size() : end;
        }
    }
    return lineOf(*value);
}

} // namespace android::tools
