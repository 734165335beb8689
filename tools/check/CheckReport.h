#pragma once

#include <cstdint>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "tools/check/Finding.h"

namespace android::tools {

// How the library classified one --layer name, from its dump.
struct LayerClass {
    std::string name;
    std::string lookupName;     // the name cut before its last '#'
    std::string classification; // "TargetLayer", "TargetIgnoreLayer", "ExceptionLayer", "Nobody"
};

// Everything pelto-check found out about one rule file.
struct FileReport {
    std::string file;
    std::vector<Finding> findings; // the file's own problems, the loader's lines, then lint
    bool loaded = false;           // the library read the file (parsed or not)
    bool loadConfigSucceeded = false;
    uintmax_t sizeBytes = 0;
    double loadMilliseconds = 0;
    std::string configuration; // the library's dump of it
    std::vector<LayerClass> layers;
    bool rejected = false;
    std::string verdict; // why it was rejected, or "loaded cleanly"

    int count(Finding::Source source, Finding::Severity severity) const;
    int errors() const;   // errors of the file and of the loader
    int warnings() const; // warnings of the file and of the loader
    int lintWarnings() const;
};

// The report as text; info lines only when `verbose`.
void writeText(const FileReport& report, bool verbose, FILE* out);
// One JSON document for the whole run.
void writeJson(const std::vector<FileReport>& reports, bool strict, bool verbose, int exitCode,
               std::ostream& out);

} // namespace android::tools
