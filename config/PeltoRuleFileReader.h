#pragma once

#include <cstddef>
#include <string>

namespace android {

// The largest rule file that is read. A device's file is a few kilobytes; the
// cap keeps a mistaken path (a log, an image) from costing the compositor
// memory and parse time.
constexpr size_t kMaxRuleFileBytes = 16 * 1024 * 1024;

// How deep arrays and objects may nest. The JSON parser gives up by throwing
// at this depth, which a build without exceptions cannot survive, so deeper
// text is rejected before the parser sees it.
constexpr size_t kMaxRuleFileNesting = 999;

// Reads the rule file at `path` into `text`. Only a regular file of at most
// kMaxRuleFileBytes is read, and the open never blocks, so a FIFO or a device
// node cannot stall the caller. Logs why a file is refused; true when read.
bool readRuleFile(const std::string& path, std::string& text);

// True when arrays and objects in `text` nest deeper than kMaxRuleFileNesting.
// Brackets inside strings and comments do not count.
bool nestsTooDeep(const std::string& text);

} // namespace android
