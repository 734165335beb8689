#include "tools/check/Finding.h"

namespace android::tools {

const char* severityName(Finding::Severity severity) {
    switch (severity) {
        case Finding::Severity::Info:
            return "info";
        case Finding::Severity::Warning:
            return "warning";
        case Finding::Severity::Error:
            return "error";
    }
    return "?";
}

const char* sourceName(Finding::Source source) {
    switch (source) {
        case Finding::Source::File:
            return "file";
        case Finding::Source::Loader:
            return "loader";
        case Finding::Source::Lint:
            return "lint";
    }
    return "?";
}

} // namespace android::tools
