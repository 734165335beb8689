#include "tools/sim/JsonFields.h"

#include <cmath>
#include <cstdio>

namespace android::tools::sim {
namespace {

constexpr double kNanosPerMilli = 1e6;
// Far beyond any scenario, and still well inside int64 nanoseconds.
constexpr double kMaxMillis = 1e9;

} // namespace

std::string indexPath(const std::string& path, Json::ArrayIndex i) {
    return path + "[" + std::to_string(i) + "]";
}

void JsonErrors::fail(const std::string& key, const std::string& reason) {
    if (failed()) return;
    mKey = key;
    mReason = reason;
}

void JsonErrors::failUnknownKey(const std::string& key, const std::string& reason) {
    if (mUnknownKey) return;
    mKey = key;
    mReason = reason;
    mUnknownKey = true;
}

std::string JsonErrors::message() const {
    return mKey.empty() ? mReason : mKey + ": " + mReason;
}

JsonFields::JsonFields(const Json::Value& value, std::string path, JsonErrors& errors)
      : mValue(value), mPath(std::move(path)), mErrors(errors) {
    if (!mValue.isObject()) {
        mErrors.fail(mPath.empty() ? "(top level)" : mPath, "expected an object { ... }");
    }
}

std::string JsonFields::path(const char* key) const {
    return mPath.empty() ? key : mPath + "." + key;
}

bool JsonFields::has(const char* key) const {
    return mValue.isObject() && mValue.isMember(key) && !mValue[key].isNull();
}

const Json::Value* JsonFields::optional(const char* key) {
    mKnown.insert(key);
    return has(key) ? &mValue[key] : nullptr;
}

const Json::Value* JsonFields::required(const char* key) {
    const Json::Value* value = optional(key);
    if (value == nullptr) {
        mErrors.fail(path(key), "missing");
    }
    return value;
}

void JsonFields::finish() {
    if (!mValue.isObject()) return;
    for (const std::string& name : mValue.getMemberNames()) {
        if (mKnown.count(name) == 0) {
            std::string known;
            for (const std::string& k : mKnown) {
                known += known.empty() ? k : ", " + k;
            }
            mErrors.failUnknownKey(path(name.c_str()),
                                   "unknown key (expected one of: " + known + ")");
            return;
        }
    }
}

double readNumber(const Json::Value& value, const std::string& path, JsonErrors& errors) {
    if (!value.isNumeric() || value.isBool()) {
        errors.fail(path, "expected a number");
        return 0;
    }
    return value.asDouble();
}

double readInRange(const Json::Value& value, const std::string& path, double min, double max,
                   const char* what, JsonErrors& errors) {
    const double number = readNumber(value, path, errors);
    if (!(number >= min && number <= max)) {
        errors.fail(path, std::string("expected ") + what);
        return min;
    }
    return number;
}

int64_t readCount(const Json::Value& value, const std::string& path, JsonErrors& errors) {
    if (!value.isIntegral() || value.isBool() || value.asInt64() < 0) {
        errors.fail(path, "expected a whole number, 0 or more");
        return 0;
    }
    return value.asInt64();
}

bool readBool(const Json::Value& value, const std::string& path, JsonErrors& errors) {
    if (!value.isBool()) {
        errors.fail(path, "expected true or false");
        return false;
    }
    return value.asBool();
}

std::string readString(const Json::Value& value, const std::string& path, JsonErrors& errors) {
    if (!value.isString()) {
        errors.fail(path, "expected a string");
        return "";
    }
    return value.asString();
}

SimTime readTimeMs(const Json::Value& value, const std::string& path, JsonErrors& errors) {
    const double ms = readNumber(value, path, errors);
    if (ms < 0 || ms > kMaxMillis) {
        errors.fail(path, "expected a time in milliseconds, from 0 to 1e9");
        return 0;
    }
    return std::llround(ms * kNanosPerMilli);
}

std::vector<Window> readWindows(const Json::Value& value, const std::string& path, SimTime end,
                                JsonErrors& errors) {
    std::vector<Window> windows;
    if (!value.isArray()) {
        errors.fail(path, "expected a list of [from_ms, to_ms] pairs");
        return windows;
    }
    for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
        const Json::Value& pair = value[i];
        const std::string at = indexPath(path, i);
        if (!pair.isArray() || pair.size() != 2) {
            errors.fail(at, "expected [from_ms, to_ms] (to_ms may be null: the end)");
            return windows;
        }
        Window window;
        window.from = readTimeMs(pair[0], at + "[0]", errors);
        window.to = pair[1].isNull() ? end : readTimeMs(pair[1], at + "[1]", errors);
        if (window.to <= window.from) {
            errors.fail(at, "to_ms must be later than from_ms");
        } else if (window.from >= end) {
            errors.fail(
                    at + "[0]",
                    "starts at or after the end of the run (duration_ms " + millisText(end) + ")");
        } else if (window.to > end) {
            errors.fail(at + "[1]",
                        "ends after the end of the run (duration_ms " + millisText(end) +
                                "); null means the end");
        }
        windows.push_back(window);
    }
    return windows;
}

std::string millisText(SimTime t) {
    char text[48];
    snprintf(text, sizeof(text), "%g ms", static_cast<double>(t) / kNanosPerMilli);
    return text;
}

} // namespace android::tools::sim
