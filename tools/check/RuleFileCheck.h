#pragma once

#include <string>
#include <vector>

#include "tools/check/CheckReport.h"
#include "tools/host/LogSink.h"
#include "tools/host/PeltoLibrary.h"

namespace android::tools {

// Checks rule files one after the other with one loaded library: the file
// itself (missing, a directory, empty, very large), the library's own load
// (a list-mode controller created with the file in place of
// /system/etc/pelto_config.json, as a compositor creates it), and the lint.
class RuleFileCheck {
public:
    struct Options {
        std::vector<std::string> layers; // names to register and classify
        bool strict = false;             // warnings and lint findings reject the file
    };

    RuleFileCheck(PeltoLibrary& library, Options options);

    FileReport check(const std::string& path);

private:
    // Loads the file with the library; fills the loader's findings, the
    // configuration, the layers and the load time.
    void loadWithLibrary(const std::string& path, FileReport& report);
    // Lints the text the library loaded and gives the loader's findings their lines.
    void lintText(std::string text, FileReport& report) const;
    void warnIfLarge(FileReport& report) const;
    void decide(FileReport& report) const;

    PeltoLibrary& mLibrary;
    const Options mOptions;
    std::vector<LogLine> mLines;
    LogSink mSink;
};

} // namespace android::tools
