#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace android::test {

// Points the rule-file loader at a temporary path of its own through PELTO_CONFIG_PATH while it
// lives, and removes the file afterwards. No file exists there until write(). One at a time.
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

    // Replaces the file whole, so that a reload on another thread reads the
    // old text or the new one, never half of it.
    void write(const std::string& json) const {
        const std::string next = mPath + ".next";
        std::ofstream(next, std::ios::trunc) << json;
        std::rename(next.c_str(), mPath.c_str());
    }
    void remove() const { std::remove(mPath.c_str()); }
    const std::string& path() const { return mPath; }

private:
    const std::string mPath;
};

} // namespace android::test

// The rule file's path is fixed on a device, so tests that bring their own file run on the host
// only.
#ifdef __ANDROID__
#define SKIP_WITHOUT_RULE_FILE_PATH() GTEST_SKIP() << "the rule file path is fixed on a device"
#else
#define SKIP_WITHOUT_RULE_FILE_PATH() static_cast<void>(0)
#endif
