#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "config/PeltoExceptionRule.h"

namespace Json {
class Value;
} // namespace Json

namespace android {

struct PeltoTargetLayerInfo {
    int32_t id = 0; // index of the naming element in "target_layers"
};

struct PeltoTargetIgnoreInfo {
    int32_t id = 0; // id of the target whose "ignore_names" lists this name
};

// The rule file in memory: target layers, layers to ignore beside a target,
// exception rules and the general switches. Loads the file at the path it is
// given on construction, and reloads from the same path.
//
// Has no lock of its own: the owner serialises every call and keeps a reload
// apart from every lookup, match and dump. Record pointers handed out by the
// lookups stay valid until the next reload or destruction.
class PeltoConfig {
public:
    static constexpr int kLoadOk = 0;
    static constexpr int kLoadFailed = -5;

    // Where a device keeps its rule file.
    static constexpr const char* kDefaultPath = "/system/etc/pelto_config.json";

    explicit PeltoConfig(std::string path);
    ~PeltoConfig();

    // An empty configuration that carries `previous`'s rule-file path,
    // switches and load status, as a reload in place would: loadConfig(true)
    // on it builds the reloaded rules aside while `previous` stays in use.
    static std::unique_ptr<PeltoConfig> makeReloadOf(const PeltoConfig& previous);

    PeltoConfig(const PeltoConfig&) = delete;
    PeltoConfig& operator=(const PeltoConfig&) = delete;

    // The file read for kDefaultPath, the only path the exported entry points
    // know. On host builds the environment variable PELTO_CONFIG_PATH, when set
    // and not empty, replaces it, for host programs that reach the library
    // only through those entry points (pelto-check, pelto-sim).
    static std::string configPath();

    // Reads the rule file at this configuration's path (configPath() for
    // kDefaultPath, looked up at each call); a reload first empties the rule
    // containers. 0 or -5.
    int loadConfig(bool reload);
    // Parses an opened rule file. 0 or -5.
    int loadConfig(std::istream& stream);

    // Exact-name lookups. On a hit, *info (when info is not null) receives the
    // stored record; on a miss it is left untouched.
    bool isTargetLayer(const std::string& name, const PeltoTargetLayerInfo** info) const;
    bool isTargetIgnoreLayer(const std::string& name, const PeltoTargetIgnoreInfo** info) const;
    bool isExceptionLayer(const std::string& name, const PeltoExceptionRule** rule) const;

    bool hasExceptionGeneralRule() const { return !mExceptionGeneralRule.entries.empty(); }
    bool isAlwaysOn() const { return mStayOnWhenHasOtherLayer; }
    bool useAdaptiveTimeout() const { return mUseAdaptiveTimeout; }
    bool loadConfigSucceeded() const { return mLoadConfigSucceeded; }

    // True when some entry of `rule` matches `input`; the first match wins.
    bool checkRuleMatch(const PeltoExceptionRuleInput& input, const PeltoExceptionRule& rule) const;
    bool checkExceptionGeneralRuleMatch(const PeltoExceptionRuleInput& input) const;

    // Appends the configuration as text.
    void dump(std::string& out) const;

private:
    struct Unloaded {};
    PeltoConfig(Unloaded, std::string path) : mPath(std::move(path)) {}

    // Parses the rule file's text. 0 or -5.
    int loadConfigText(const std::string& text);

    // Loader steps, in file order. Each logs what it rejects and clears
    // mLoadConfigSucceeded for it.
    void loadTargetLayers(const Json::Value& targets);
    void loadGeneralRule(const Json::Value& generalRule);
    bool loadSwitch(const Json::Value& value, const char* key, bool& out);
    void loadExceptionRules(const Json::Value& exceptions);

    const std::string mPath;
    std::unordered_map<std::string, PeltoTargetLayerInfo> mTargetLayers;
    std::unordered_map<std::string, PeltoTargetIgnoreInfo> mTargetIgnoreLayers;
    std::unordered_map<std::string, PeltoExceptionRule> mExceptionRules;
    PeltoExceptionRule mExceptionGeneralRule;
    bool mStayOnWhenHasOtherLayer = true;
    bool mUseAdaptiveTimeout = true;
    bool mLoadConfigSucceeded = true;
};

} // namespace android
