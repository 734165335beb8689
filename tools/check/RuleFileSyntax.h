#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/check/Finding.h"

namespace android::tools {

// A file the library cannot read as JSON text at all, told by its first
// bytes: gzip-compressed, or UTF-16. An error at line 1, column 1.
std::optional<Finding> encodingProblem(const std::string& text);

// What jsoncpp, set up as the library sets it up, passes over without a word
// in a rule file's text: a UTF-8 byte order mark, bytes that are not UTF-8,
// trailing commas, a key given twice in one object (the last wins), a NUL
// byte in a string or a key, and a second value after the first (ignored).
// Each is a warning with its line, column and JSON path. The scan stops at
// the first syntax error, which the library's own parse reports.
std::vector<Finding> scanRuleFileSyntax(const std::string& text);

} // namespace android::tools
