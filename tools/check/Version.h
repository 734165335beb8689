#pragma once

namespace android::tools {

// pelto-check follows the library whose rule files it checks; the number
// after the dot counts the checker's own revisions (1: the lint pass, --json).
constexpr const char* kPeltoCheckVersion = "2.0.1";

} // namespace android::tools
