// pelto-check: checks rule files before they ship. For each file it loads the
// file with the library's own loader and prints every line the loader logged,
// with the JSON path it is about; then lints what the loader accepts without
// a word (misspelled keys, names that never match, rules never used, entries
// that never match or never decide); then the configuration as the library
// understood it.
//
//   pelto-check [--lib PATH] [--layer NAME]... [--strict] [--json] [--verbose] RULE_FILE...
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "tools/check/CheckReport.h"
#include "tools/check/RuleFileCheck.h"
#include "tools/check/Version.h"
#include "tools/host/PeltoLibrary.h"

namespace android::tools {
namespace {

constexpr int kExitClean = 0;
constexpr int kExitRejected = 1;
constexpr int kExitUsage = 2;

struct Options {
    std::string library = PELTO_LIBRARY_PATH;
    std::vector<std::string> ruleFiles;
    RuleFileCheck::Options check;
    bool json = false;
    bool verbose = false;
};

void usage(FILE* out) {
    std::fprintf(out,
                 "usage: pelto-check [--lib PATH] [--layer NAME]... [--strict] [--json] "
                 "[--verbose] RULE_FILE...\n"
                 "Checks rule files for libzav_sf_pelto_2_0: the library's own load, with the "
                 "JSON path\nof each line it logs, then a lint of what it accepts but is most "
                 "likely a mistake.\n"
                 "  --lib PATH    the library to load (default: %s)\n"
                 "  --layer NAME  also show how a layer of this name is classified; repeatable\n"
                 "  --strict      fail on warnings and lint findings too\n"
                 "  --json        print one JSON document for the whole run instead of text\n"
                 "                (a byte that is not UTF-8 appears in it as U+FFFD)\n"
                 "  --verbose     show the loader's info lines as well\n"
                 "  --version     print the version and exit\n"
                 "  --help        print this and exit\n"
                 "exit status:\n"
                 "  0  every file loaded cleanly (lint findings are warnings unless --strict)\n"
                 "  1  some file was rejected: it could not be read or loaded, the loader "
                 "reported an\n"
                 "     error, or (with --strict) there was a warning or a lint finding\n"
                 "  2  pelto-check could not run: bad arguments, or the library cannot be "
                 "loaded\n",
                 PELTO_LIBRARY_PATH);
}

bool parseArgs(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--lib" && hasValue) {
            options->library = argv[++i];
        } else if (arg == "--layer" && hasValue) {
            options->check.layers.push_back(argv[++i]);
        } else if (arg == "--strict") {
            options->check.strict = true;
        } else if (arg == "--json") {
            options->json = true;
        } else if (arg == "--verbose") {
            options->verbose = true;
        } else if (arg == "--help" || arg == "-h") {
            usage(stdout);
            std::exit(kExitClean);
        } else if (arg == "--version") {
            std::printf("pelto-check %s\n", kPeltoCheckVersion);
            std::exit(kExitClean);
        } else if (arg == "--lib" || arg == "--layer") {
            std::fprintf(stderr, "pelto-check: %s needs a value\n", arg.c_str());
            return false;
        } else if (arg.size() > 1 && arg[0] == '-') {
            std::fprintf(stderr, "pelto-check: unknown option %s\n", arg.c_str());
            return false;
        } else {
            options->ruleFiles.push_back(arg);
        }
    }
    if (options->ruleFiles.empty()) {
        std::fprintf(stderr, "pelto-check: no rule file given\n");
        return false;
    }
    return true;
}

int run(const Options& options) {
    PeltoLibrary library;
    std::string error;
    if (!library.open(options.library, &error)) {
        std::fprintf(stderr, "pelto-check: %s\n", error.c_str());
        return kExitUsage;
    }
    RuleFileCheck checker(library, options.check);
    std::vector<FileReport> reports;
    int exitCode = kExitClean;
    int rejected = 0;
    for (const std::string& file : options.ruleFiles) {
        reports.push_back(checker.check(file));
        if (reports.back().rejected) {
            exitCode = kExitRejected;
            ++rejected;
        }
        if (!options.json) {
            if (reports.size() > 1) std::printf("\n");
            writeText(reports.back(), options.verbose, stdout);
        }
    }
    if (options.json) {
        writeJson(reports, options.check.strict, options.verbose, exitCode, std::cout);
    } else if (reports.size() > 1) {
        std::printf("\n%zu rule files: %zu OK, %d REJECTED\n", reports.size(),
                    reports.size() - rejected, rejected);
    }
    return exitCode;
}

} // namespace
} // namespace android::tools

int main(int argc, char** argv) {
    android::tools::Options options;
    if (!android::tools::parseArgs(argc, argv, &options)) {
        std::fprintf(stderr, "run pelto-check --help for the options\n");
        return android::tools::kExitUsage;
    }
    return android::tools::run(options);
}
