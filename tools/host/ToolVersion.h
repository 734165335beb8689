#pragma once

namespace android::tools {

// The version of the host tools, pelto-check and pelto-sim: they follow the
// library they load (2.0); the number after the dot counts the tools' own
// revisions (1: pelto-check's lint pass and --json).
constexpr const char* kPeltoToolsVersion = "2.0.1";

} // namespace android::tools
