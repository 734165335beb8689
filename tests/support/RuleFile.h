#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"

namespace android::test {

// Points the rule-file loader at a temporary path of its own through
// PELTO_CONFIG_PATH while it lives, and removes the file afterwards. No file
// exists there until write(). One per test program at a time.
class ScopedRuleFile {
public:
    ScopedRuleFile()
          : mPath(::testing::TempDir() + "pelto_config_" + std::to_string(getpid()) + ".json") {
        setenv("PELTO_CONFIG_PATH", mPath.c_str(), 1);
    }
    // The same, with the file written at once.
    explicit ScopedRuleFile(const std::string& json) : ScopedRuleFile() { write(json); }
    ~ScopedRuleFile() {
        remove();
        unsetenv("PELTO_CONFIG_PATH");
    }

    ScopedRuleFile(const ScopedRuleFile&) = delete;
    ScopedRuleFile& operator=(const ScopedRuleFile&) = delete;

    void write(const std::string& json) const { std::ofstream(mPath, std::ios::trunc) << json; }
    void remove() const { std::remove(mPath.c_str()); }
    const std::string& path() const { return mPath; }

private:
    const std::string mPath;
};

// Lines that the configuration logs.
inline LogLine configInfo(std::string m) { return {ANDROID_LOG_INFO, "PeltoConfig", m}; }
inline LogLine configWarning(std::string m) { return {ANDROID_LOG_WARN, "PeltoConfig", m}; }
inline LogLine configError(std::string m) { return {ANDROID_LOG_ERROR, "PeltoConfig", m}; }

// A complete rule file (one target "t", both switches on) around the given
// "exception_rule" elements.
inline std::string ruleFileWithExceptions(const std::string& elements) {
    return R"({"target_layers": [{"name": "t"}], "general_rule": {"on_when_has_other_layer": 1,
               "use_adaptive_timeout": true}, "exception_rule": [)" + elements + "]}";
}

// A rule file that uses every kind of key: two targets, two ignored names,
// both switches, a general exception entry and two named exception rules.
inline constexpr const char* kExampleRuleFile = R"({"target_layers": [
    {"name": "example.player/VideoSurface",
     "ignore_names": ["example.player/Subtitles", "example.player/Controls"]},
    {"name": "example.reader/PageSurface"}],
  "general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": false},
  "exception_rule": [
    {"layer_screen_size_ratio": {"condition": "1 bigger", "value1": 30}},
    {"name": "example.keyboard/InputPanel", "focus": true,
     "layer_screen_size_ratio": {"condition": "2", "value1": 10, "value2": 50}},
    {"name": "example.dialog/Popup", "always_true": true}]})";

} // namespace android::test

// The rule file's path is fixed on a device, so tests that bring their own file
// run on the host only.
#ifdef __ANDROID__
#define SKIP_WITHOUT_RULE_FILE_PATH() GTEST_SKIP() << "the rule file path is fixed on a device"
#else
#define SKIP_WITHOUT_RULE_FILE_PATH() static_cast<void>(0)
#endif
