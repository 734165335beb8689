#pragma once

#include <string>

namespace android::tools {

// One thing pelto-check has to say about a rule file: a line the library's
// loader logged, a problem with the file itself, or a lint finding.
struct Finding {
    enum class Severity { Info, Warning, Error };
    enum class Source { File, Loader, Lint };

    Severity severity = Severity::Warning;
    Source source = Source::Lint;
    std::string code;     // short stable name ("unknown-key", "not-boolean")
    std::string path;     // JSON path ("exception_rule[3].focus"); empty: the whole file
    int line = 0;         // 1-based line in the file; 0 when unknown
    int column = 0;       // 1-based column (byte) in that line; 0 when unknown
    std::string message;  // loader lines: the library's text, unchanged
    std::string fix;      // how to fix it; empty only for info lines
    char logPriority = 0; // loader lines: the library's log priority ('W', 'E', 'I')
};

const char* severityName(Finding::Severity severity);
const char* sourceName(Finding::Source source);

} // namespace android::tools
