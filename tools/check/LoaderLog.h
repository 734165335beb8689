#pragma once

#include <vector>

#include "tools/check/Finding.h"
#include "tools/host/LogSink.h"

namespace android::tools {

// The lines the library's loader logged under "PeltoConfig", in order, as
// findings: each message unchanged, with a code and a fix (a generic code
// for a message pelto-check does not know) and the JSON path it is about where
// that can be told (from the message itself, or, for an exception entry's
// condition, from the "excpetion rule entry load fail, i N" line after it).
// A warning that marks the load as not clean (the dump's
// mLoadConfigSucceeded: 0) counts as an error. Info lines are kept as Info.
std::vector<Finding> readLoaderLines(const std::vector<LogLine>& lines);

// The message with which the loader says that nothing could be loaded.
bool isLoadFailure(const Finding& finding);

} // namespace android::tools
