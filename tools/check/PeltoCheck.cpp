// pelto-check: loads a rule file with the library's own loader, prints every
// warning and error the loader logged, then the configuration as the library
// understood it. Exit status 0 only for a clean load.
//
//   pelto-check [--lib PATH] [--layer NAME]... [--strict] [--verbose] RULE_FILE
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <android/log.h>

#include "tools/host/LogSink.h"
#include "tools/host/PeltoLibrary.h"

namespace android::tools {
namespace {

constexpr int kExitClean = 0;
constexpr int kExitRejected = 1;
constexpr int kExitUsage = 2;

constexpr const char* kConfigTag = "PeltoConfig";
// Lines with which the loader reports that nothing could be loaded.
constexpr const char* kLoadFailurePrefixes[] = {"failed to open ", "loadConfig failed, ret "};

struct Options {
    std::string library = PELTO_LIBRARY_PATH;
    std::string ruleFile;
    std::vector<std::string> layers;
    bool strict = false;
    bool verbose = false;
};

void usage() {
    std::fprintf(stderr,
                 "usage: pelto-check [--lib PATH] [--layer NAME]... [--strict] [--verbose] "
                 "RULE_FILE\n"
                 "  --lib PATH    the library to load (default: %s)\n"
                 "  --layer NAME  also show how a layer of this name is classified; repeatable\n"
                 "  --strict      fail on warnings too\n"
                 "  --verbose     show the loader's info lines as well\n",
                 PELTO_LIBRARY_PATH);
}

bool parseArgs(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--lib" && hasValue) {
            options->library = argv[++i];
        } else if (arg == "--layer" && hasValue) {
            options->layers.push_back(argv[++i]);
        } else if (arg == "--strict") {
            options->strict = true;
        } else if (arg == "--verbose") {
            options->verbose = true;
        } else if (arg == "--help" || arg == "-h") {
            usage();
            std::exit(kExitClean);
        } else if (!arg.empty() && arg[0] == '-') {
            std::fprintf(stderr, "pelto-check: unknown option %s\n", arg.c_str());
            return false;
        } else if (options->ruleFile.empty()) {
            options->ruleFile = arg;
        } else {
            std::fprintf(stderr, "pelto-check: more than one rule file given\n");
            return false;
        }
    }
    if (options->ruleFile.empty()) {
        std::fprintf(stderr, "pelto-check: no rule file given\n");
        return false;
    }
    return true;
}

bool isLoadFailure(const LogLine& line) {
    if (line.tag != kConfigTag) return false;
    for (const char* prefix : kLoadFailurePrefixes) {
        if (line.message.rfind(prefix, 0) == 0) return true;
    }
    return false;
}

// The controller's dump without its status block: the configuration, then
// the layer sections when `withLayers`.
std::string configurationPart(const std::string& dump, bool withLayers) {
    const size_t end = dump.find(withLayers ? "==========\nPelto State:"
                                            : "==========\nTargetLayer:");
    return end == std::string::npos ? dump : dump.substr(0, end);
}

// A log message, continuation lines indented under the first.
std::string indented(const std::string& message) {
    std::string out;
    for (char c : message) {
        out += c;
        if (c == '\n') out += "    ";
    }
    return out;
}

int run(const Options& options) {
    std::vector<LogLine> lines;
    LogSink sink([&lines](const LogLine& line) { lines.push_back(line); });

    PeltoLibrary library;
    std::string error;
    if (!library.open(options.library, &error)) {
        std::fprintf(stderr, "pelto-check: %s\n", error.c_str());
        return kExitUsage;
    }

    // The host build of the library reads its rule file from here.
    setenv("PELTO_CONFIG_PATH", options.ruleFile.c_str(), 1);

    // A list-mode controller, as a compositor creates it; none of these
    // callbacks is reached, since nothing is composited.
    PeltoController* controller = library.createPeltoController(
            /*useList=*/true, [](const sp<IBinder>&) -> void* { return nullptr; },
            [](const sp<IBinder>&) { return 1; }, nullptr,
            [](const PeltoController::BufferLayerVisitor&) {}, [] { return 16'666'666L; },
            [](bool) {}, [] {}, [] {}, [] {});
    // Stand-ins for the compositor's layer pointers: only compared, never read.
    std::vector<char> layerIds(options.layers.size());
    for (size_t i = 0; i < options.layers.size(); ++i) {
        library.registerLayer(controller, &layerIds[i], options.layers[i]);
    }
    std::string dump;
    library.dump(controller, dump);
    library.destroyPeltoController(controller);

    std::printf("rule file: %s\n", options.ruleFile.c_str());
    int errors = 0;
    int warnings = 0;
    bool loadFailed = false;
    for (const LogLine& line : lines) {
        const bool problem = line.priority >= ANDROID_LOG_WARN;
        loadFailed = loadFailed || isLoadFailure(line);
        if (line.tag != kConfigTag || (!problem && !options.verbose)) continue;
        if (line.priority >= ANDROID_LOG_ERROR) {
            ++errors;
        } else if (problem) {
            ++warnings;
        }
        std::printf("  %c %s\n", priorityLetter(line.priority), indented(line.message).c_str());
    }
    if (errors == 0 && warnings == 0) {
        std::printf("  no warnings or errors\n");
    }

    std::printf("\nconfiguration as loaded:\n%s\n",
                configurationPart(dump, !options.layers.empty()).c_str());

    const bool succeeded = dump.rfind("mLoadConfigSucceeded: 1\n", 0) == 0;
    if (loadFailed || !succeeded || (options.strict && warnings > 0)) {
        std::printf("REJECTED: %s (%d errors, %d warnings)\n",
                    loadFailed     ? "nothing could be loaded from the file"
                    : !succeeded   ? "the file loaded with errors; mLoadConfigSucceeded is 0"
                                   : "warnings are not allowed with --strict",
                    errors, warnings);
        return kExitRejected;
    }
    std::printf("OK: loaded cleanly (%d warnings)\n", warnings);
    return kExitClean;
}

} // namespace
} // namespace android::tools

int main(int argc, char** argv) {
    android::tools::Options options;
    if (!android::tools::parseArgs(argc, argv, &options)) {
        android::tools::usage();
        return android::tools::kExitUsage;
    }
    return android::tools::run(options);
}
