#pragma once

#include <vector>

#include "tools/check/Finding.h"
#include "tools/check/RuleFileText.h"

namespace android::tools {

// Mistakes that the library's loader accepts without a word: misspelled or
// misplaced keys, names that can never match a layer, repeated targets,
// rules that are never used, entries that can never match or are always
// decided by an earlier entry, ratios outside 0 to 100 %. Every finding is a
// warning, with its JSON path, its line and how to fix it.
std::vector<Finding> lintRuleFile(const RuleFileText& file);

} // namespace android::tools
