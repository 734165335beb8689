#pragma once

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "controller/PeltoController.h"

namespace android::test {

// A rule file at a temporary path of its own (under ::testing::TempDir(), writable on a device
// too), removed when this goes. No file exists there until write(). A configuration or a
// controller loads it when given path() or platform(). One at a time.
class ScopedRuleFile {
public:
    ScopedRuleFile()
          : mPath(::testing::TempDir() + "pelto_config_" + std::to_string(getpid()) + ".json") {}
    // The same, with the file written at once.
    explicit ScopedRuleFile(const std::string& json) : ScopedRuleFile() { write(json); }
    ~ScopedRuleFile() { remove(); }

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
    // The real platform calls, with this file as the controller's rule file.
    PeltoController::PlatformCalls platform() const {
        PeltoController::PlatformCalls platform;
        platform.ruleFilePath = mPath;
        return platform;
    }

private:
    const std::string mPath;
};

} // namespace android::test
