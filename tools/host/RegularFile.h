#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace android::tools {

// Opens `path` read-only for a tool's input: only a regular file of at most
// `maxBytes`. The open never blocks, so a FIFO or a device node is refused
// rather than waited on. Returns the descriptor, or -1 with *error naming
// the file and the reason.
int openRegularFile(const std::string& path, uint64_t maxBytes, std::string* error);

// Reads all of a regular file of at most `maxBytes` (see openRegularFile).
bool readRegularFile(const std::string& path, uint64_t maxBytes, std::string* text,
                     std::string* error);

} // namespace android::tools
