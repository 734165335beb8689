#pragma once

#include <set>
#include <string>
#include <vector>

#include <json/json.h>

#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// Keeps the first problem found while reading a JSON document, with the key
// path of the value at fault ("layers[2].frames.fps"). An unknown key wins
// over any other problem: a misspelled key is the likeliest cause of the
// others ("screen_pct" leaves the layer without a size).
class JsonErrors {
public:
    void fail(const std::string& key, const std::string& reason);
    void failUnknownKey(const std::string& key, const std::string& reason);
    bool failed() const { return !mKey.empty() || !mReason.empty(); }
    std::string message() const;

private:
    std::string mKey;
    std::string mReason;
    bool mUnknownKey = false;
};

// The members of one JSON object, read by key. Keys that are read (present or
// not) are remembered, so that finish() can reject the ones nobody asked for,
// which are almost always typos.
class JsonFields {
public:
    JsonFields(const Json::Value& value, std::string path, JsonErrors& errors);

    // The value of `key`, or null when the key is absent or holds null.
    const Json::Value* optional(const char* key);
    // Like optional(), and a "missing" error when absent.
    const Json::Value* required(const char* key);
    bool has(const char* key) const;
    std::string path(const char* key) const;
    // Reports the first member that was never asked for.
    void finish();

private:
    const Json::Value& mValue;
    const std::string mPath;
    JsonErrors& mErrors;
    std::set<std::string> mKnown;
};

// "path[i]"
std::string indexPath(const std::string& path, Json::ArrayIndex i);

// Typed readers. On a type or range error they report it and return a
// harmless default, so reading can go on to its end.
double readNumber(const Json::Value& value, const std::string& path, JsonErrors& errors);
// A number in [min, max]; `what` names the range in the message.
double readInRange(const Json::Value& value, const std::string& path, double min, double max,
                   const char* what, JsonErrors& errors);
int64_t readCount(const Json::Value& value, const std::string& path, JsonErrors& errors);
bool readBool(const Json::Value& value, const std::string& path, JsonErrors& errors);
std::string readString(const Json::Value& value, const std::string& path, JsonErrors& errors);
// Milliseconds, not negative, as nanoseconds.
SimTime readTimeMs(const Json::Value& value, const std::string& path, JsonErrors& errors);
// [[from_ms, to_ms], ...] inside the run: from before `end`, to at most
// `end`; a null `to` means `end`.
std::vector<Window> readWindows(const Json::Value& value, const std::string& path, SimTime end,
                                JsonErrors& errors);
// "1234.5 ms", for messages.
std::string millisText(SimTime t);

} // namespace android::tools::sim
