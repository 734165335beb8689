#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/host/RegularFile.h"

namespace android::tools::sim {

// The largest scenario file that is read; a scenario with a hundred thousand
// layers or inline frame times is a few megabytes.
constexpr uint64_t kMaxScenarioBytes = 64ull << 20;
// How deep arrays and objects may nest in a scenario (its inline rules
// included): its own format is a few levels deep.
constexpr size_t kMaxScenarioNesting = 64;
// The largest capture or frame-times file on disk, and the most bytes and
// lines read from one after gzip inflates it (standard input included).
constexpr uint64_t kMaxLineFileBytes = 1ull << 30;
constexpr uint64_t kMaxInflatedBytes = 2ull << 30;
constexpr int64_t kMaxLines = 20000000;

// Checks the rule file at `path` as the library will read it (a regular
// file, its size and nesting caps), so that a bad one is refused with the
// reason before the run; false with *error otherwise.
bool checkRuleFile(const std::string& path, std::string* error);

} // namespace android::tools::sim
