#define LOG_TAG "PeltoConfig"

#include "config/PeltoConfig.h"

#include <cstdlib>
#include <iterator>
#include <limits>
#include <optional>
#include <utility>

#include <json/json.h>
#include <log/log.h>

#include "config/PeltoRuleFileReader.h"

namespace android {
namespace {

// A key counts only when it holds something: null, [] and {} are as good as missing.
bool isPresent(const Json::Value& value) {
    return !value.empty();
}

bool isBoolLike(const Json::Value& value) {
    return value.isConvertibleTo(Json::booleanValue);
}

// Where a name is expected, numbers and booleans are read as their text.
// asString() on an array or an object fails inside jsoncpp, so those are rejected first.
bool isStringLike(const Json::Value& value) {
    return value.isString() || value.isNumeric() || value.isBool();
}

// The leading decimal number of `text` (which starts with a digit), or -1 when
// it does not fit an int32.
int32_t leadingNumber(const std::string& text) {
    constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
    int32_t number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            break;
        }
        const int32_t digit = c - '0';
        if (number > (kMax - digit) / 10) {
            return -1;
        }
        number = number * 10 + digit;
    }
    return number;
}

// On a hit, hands out the stored record when asked for it; a miss writes nothing.
template <typename Map>
bool findRecord(const Map& map, const std::string& name, const typename Map::mapped_type** record) {
    const auto it = map.find(name);
    if (it == map.end()) {
        return false;
    }
    if (record != nullptr) {
        *record = &it->second;
    }
    return true;
}

bool parseRuleFile(const std::string& text, Json::Value& root) {
    std::string errors;
    bool parsed = false;
    if (nestsTooDeep(text)) {
        // The parser's own words for the depth it refuses by throwing.
        errors = "Exceeded stackLimit in readValue().";
    } else {
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        parsed = reader->parse(text.data(), text.data() + text.size(), &root, &errors);
    }
    if (!parsed) {
        ALOGE("parse fail, %s", errors.c_str());
    }
    return parsed;
}

bool loadRatioCondition(const Json::Value& ratio, Json::ArrayIndex index,
                        PeltoExceptionRuleEntry& entry) {
    if (!ratio.isObject()) {
        ALOGE("exception_rule[%u].layer_screen_size_ratio is not an object", index);
        return false;
    }
    const Json::Value& condition = ratio["condition"];
    if (!isPresent(condition)) {
        ALOGE("no condition");
        return false;
    }
    if (!isStringLike(condition)) {
        ALOGE("exception_rule[%u].layer_screen_size_ratio.condition is not a string", index);
        return false;
    }
    const std::string text = condition.asString();
    if (text.empty() || text[0] < '0' || text[0] > '9') {
        ALOGE("condition should start with condition type number, %s", text.c_str());
        return false;
    }
    const int32_t type = leadingNumber(text);
    if (type < kConditionSmaller || type > kConditionEqual) {
        ALOGE("invalid rule.conditionType %d, %s", type, text.c_str());
        return false;
    }

    const Json::Value& value1Json = ratio["value1"];
    if (!isPresent(value1Json)) {
        ALOGE("no value1");
        return false;
    }
    if (!value1Json.isNumeric()) {
        ALOGE("value1 is not numeric");
        return false;
    }
    const float value1 = value1Json.asFloat();
    const Json::Value& value2Json = ratio["value2"];
    std::optional<float> value2;
    if (isPresent(value2Json)) {
        if (!value2Json.isNumeric()) {
            ALOGE("value2 is not numeric");
            return false;
        }
        value2 = value2Json.asFloat();
    }
    if (type == kConditionInRange) {
        if (!value2) {
            ALOGE("condition in_range, but no value2");
            return false;
        }
        if (value1 > *value2) {
            ALOGE("value1 > value2");
            return false;
        }
    }
    entry.ruleLayerScreenSizeRatio = makeNumericCondition(type, value1, value2);
    return true;
}

// Fills `entry` from one "exception_rule" element; the first problem ends it.
bool loadExceptionRuleEntry(const Json::Value& element, Json::ArrayIndex index,
                            PeltoExceptionRuleEntry& entry) {
    const Json::Value& ratio = element["layer_screen_size_ratio"];
    if (isPresent(ratio) && !loadRatioCondition(ratio, index, entry)) {
        return false;
    }
    const Json::Value& focus = element["focus"];
    if (isPresent(focus)) {
        if (!isBoolLike(focus)) {
            ALOGE("focus, type not convertible to boolean");
            return false;
        }
        entry.ruleFocus = makeBoolCondition(focus.asBool());
    }
    const Json::Value& alwaysTrue = element["always_true"];
    if (isPresent(alwaysTrue)) {
        if (!isBoolLike(alwaysTrue)) {
            ALOGE("always_true, type not convertible to boolean");
            return false;
        }
        entry.alwaysTrue = alwaysTrue.asBool();
    }
    return true;
}

} // namespace

PeltoConfig::PeltoConfig(std::string path) : mPath(std::move(path)) {
    // Failures are logged inside; the object stays usable with what was loaded.
    loadConfig(false);
}

PeltoConfig::~PeltoConfig() = default;

std::unique_ptr<PeltoConfig> PeltoConfig::makeReloadOf(const PeltoConfig& previous) {
    std::unique_ptr<PeltoConfig> config(new PeltoConfig(Unloaded{}, previous.mPath));
    config->mStayOnWhenHasOtherLayer = previous.mStayOnWhenHasOtherLayer;
    config->mUseAdaptiveTimeout = previous.mUseAdaptiveTimeout;
    config->mLoadConfigSucceeded = previous.mLoadConfigSucceeded;
    return config;
}

std::string PeltoConfig::configPath() {
#ifndef __ANDROID__
    // Lets host programs that only call the exported entry points point the
    // loader at their own file, from one load to the next.
    if (const char* path = std::getenv("PELTO_CONFIG_PATH"); path != nullptr && path[0] != '\0') {
        return path;
    }
#endif
    return kDefaultPath;
}

int PeltoConfig::loadConfig(bool reload) {
    // The switches and mLoadConfigSucceeded carry over a reload.
    if (reload) {
        mTargetLayers.clear();
        mTargetIgnoreLayers.clear();
        mExceptionRules.clear();
        mExceptionGeneralRule.entries.clear();
    }
    std::string text;
    if (!readRuleFile(mPath == kDefaultPath ? configPath() : mPath, text)) {
        return kLoadFailed;
    }
    const int ret = loadConfigText(text);
    if (ret != kLoadOk) {
        ALOGE("loadConfig failed, ret %d", ret);
    }
    return ret;
}

int PeltoConfig::loadConfig(std::istream& stream) {
    return loadConfigText(std::string(std::istreambuf_iterator<char>(stream), {}));
}

int PeltoConfig::loadConfigText(const std::string& text) {
    Json::Value root;
    if (!parseRuleFile(text, root)) {
        mLoadConfigSucceeded = false;
        return kLoadFailed;
    }
    const auto rejectFile = [this](const char* reason) {
        ALOGE("%s", reason);
        mLoadConfigSucceeded = false;
        return kLoadFailed;
    };
    // Every member below is read through operator[], which needs an object.
    if (!root.isObject()) {
        return rejectFile("root is not an object");
    }
    const Json::Value& targets = root["target_layers"];
    if (!isPresent(targets)) {
        return rejectFile("targetLayers.empty()");
    }
    if (!targets.isArray()) {
        return rejectFile("target_layers is not an array");
    }
    loadTargetLayers(targets);
    loadGeneralRule(root["general_rule"]);
    loadExceptionRules(root["exception_rule"]);
    return kLoadOk;
}

bool PeltoConfig::isTargetLayer(const std::string& name, const PeltoTargetLayerInfo** info) const {
    return findRecord(mTargetLayers, name, info);
}

bool PeltoConfig::isTargetIgnoreLayer(const std::string& name,
                                      const PeltoTargetIgnoreInfo** info) const {
    return findRecord(mTargetIgnoreLayers, name, info);
}

bool PeltoConfig::isExceptionLayer(const std::string& name, const PeltoExceptionRule** rule) const {
    return findRecord(mExceptionRules, name, rule);
}

void PeltoConfig::loadTargetLayers(const Json::Value& targets) {
    for (Json::ArrayIndex i = 0; i < targets.size(); ++i) {
        const Json::Value& target = targets[i];
        if (!target.isObject()) {
            ALOGE("target_layers[%u] is not an object", i);
            mLoadConfigSucceeded = false;
            continue;
        }
        // The element is checked whole first, so a rejected one leaves nothing behind.
        const Json::Value& nameValue = target["name"];
        const Json::Value& ignoreNames = target["ignore_names"];
        if (isPresent(nameValue) && !isStringLike(nameValue)) {
            ALOGE("target_layers[%u].name is not a string", i);
            mLoadConfigSucceeded = false;
            continue;
        }
        if (isPresent(ignoreNames) && !ignoreNames.isArray()) {
            ALOGE("target_layers[%u].ignore_names is not an array", i);
            mLoadConfigSucceeded = false;
            continue;
        }

        const auto id = static_cast<int32_t>(i);
        const std::string name = isPresent(nameValue) ? nameValue.asString() : std::string();
        mTargetLayers[name].id = id;
        ALOGI("target layer id %d, name %s", id, name.c_str());

        if (!ignoreNames.isArray()) {
            continue;
        }
        for (Json::ArrayIndex j = 0; j < ignoreNames.size(); ++j) {
            const Json::Value& ignoreName = ignoreNames[j];
            if (!isStringLike(ignoreName)) {
                ALOGE("target_layers[%u].ignore_names[%u] is not a string", i, j);
                mLoadConfigSucceeded = false;
                continue;
            }
            const std::string ignore = ignoreName.asString();
            mTargetIgnoreLayers[ignore].id = id;
            ALOGI("\tignore layer id %d, name %s", id, ignore.c_str());
        }
    }
}

void PeltoConfig::loadGeneralRule(const Json::Value& generalRule) {
    if (isPresent(generalRule) && generalRule.isObject()) {
        if (loadSwitch(generalRule["on_when_has_other_layer"], "on_when_has_other_layer",
                       mStayOnWhenHasOtherLayer)) {
            ALOGI("stayOnWhenHasOtherLayer %d", mStayOnWhenHasOtherLayer);
        }
        loadSwitch(generalRule["use_adaptive_timeout"], "use_adaptive_timeout",
                   mUseAdaptiveTimeout);
        return;
    }
    if (isPresent(generalRule)) {
        ALOGE("general_rule is not an object");
    } else {
        ALOGW("generalRule.empty(), stayOnWhenHasOtherLayer = true");
    }
    mStayOnWhenHasOtherLayer = true;
    mUseAdaptiveTimeout = true;
    mLoadConfigSucceeded = false;
}

// A switch that is missing or not boolean-like stays on.
bool PeltoConfig::loadSwitch(const Json::Value& value, const char* key, bool& out) {
    if (isPresent(value) && isBoolLike(value)) {
        out = value.asBool();
        return true;
    }
    if (isPresent(value)) {
        ALOGE("%s, type not convertible to boolean", key);
    } else {
        ALOGW("no %s, default on", key);
    }
    out = true;
    mLoadConfigSucceeded = false;
    return false;
}

void PeltoConfig::loadExceptionRules(const Json::Value& exceptions) {
    if (!isPresent(exceptions)) {
        ALOGW("exceptions.empty()");
        return;
    }
    if (!exceptions.isArray()) {
        ALOGE("exception_rule is not an array");
        mLoadConfigSucceeded = false;
        return;
    }
    for (Json::ArrayIndex i = 0; i < exceptions.size(); ++i) {
        const Json::Value& element = exceptions[i];
        PeltoExceptionRule* rule = nullptr;
        if (!element.isObject()) {
            ALOGE("exception_rule[%u] is not an object", i);
        } else if (const Json::Value& name = element["name"]; !isPresent(name)) {
            rule = &mExceptionGeneralRule;
        } else if (!isStringLike(name)) {
            ALOGE("exception_rule[%u].name is not a string", i);
        } else {
            // The named rule exists from here on, even if this entry fails.
            rule = &mExceptionRules[name.asString()];
        }

        PeltoExceptionRuleEntry entry;
        if (rule != nullptr && loadExceptionRuleEntry(element, i, entry)) {
            rule->entries.push_back(std::move(entry));
            continue;
        }
        ALOGI("excpetion rule entry load fail, i %u", i);
        mLoadConfigSucceeded = false;
    }
}

} // namespace android
