#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

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

// Opens `path` read-only for a tool's input: only a regular file of at most
// `maxBytes`. The open never blocks, so a FIFO or a device node is refused
// rather than waited on. Returns the descriptor, or -1 with *error naming
// the file and the reason.
int openRegularFile(const std::string& path, uint64_t maxBytes, std::string* error);

// Reads all of a regular file of at most `maxBytes` (see openRegularFile).
bool readRegularFile(const std::string& path, uint64_t maxBytes, std::string* text,
                     std::string* error);

// True when arrays and objects in the JSON `text` nest deeper than
// `maxDepth`; brackets in strings and comments do not count. Checked before
// jsoncpp parses, which gives up by throwing at 1000 levels.
bool jsonNestsTooDeep(const std::string& text, size_t maxDepth);

// Checks the rule file at `path` as the library will read it (a regular
// file, its size and nesting caps), so that a bad one is refused with the
// reason before the run; false with *error otherwise.
bool checkRuleFile(const std::string& path, std::string* error);

} // namespace android::tools::sim
