#include "tools/check/RuleFileCheck.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <sstream>

#include "config/PeltoRuleFileReader.h"
#include "tools/check/LayerName.h"
#include "tools/check/LoaderLog.h"
#include "tools/check/RuleFileSyntax.h"
#include "tools/check/RuleFileText.h"
#include "tools/check/RuleLint.h"
#include "tools/host/RegularFile.h"

namespace android::tools {
namespace {

// The library reads the whole file at every controller creation and every
// rule reload; past this size that is worth a warning with the time it took.
constexpr uintmax_t kLargeFileBytes = 4u << 20;

constexpr const char* kLayerSections[] = {
        "TargetLayer:", "TargetIgnoreLayer:", "ExceptionLayer:", "Nobody:"};

Finding fileFinding(Finding::Severity severity, const char* code, std::string message,
                    std::string fix) {
    Finding finding;
    finding.severity = severity;
    finding.source = Finding::Source::File;
    finding.code = code;
    finding.message = std::move(message);
    finding.fix = std::move(fix);
    return finding;
}

// The controller's dump without its status block: the configuration, then
// the layer sections when `withLayers`.
std::string configurationPart(const std::string& dump, bool withLayers) {
    const size_t end =
            dump.find(withLayers ? "==========\nPelto State:" : "==========\nTargetLayer:");
    return end == std::string::npos ? dump : dump.substr(0, end);
}

// The layer sections of the dump: each registered name under its section.
std::vector<LayerClass> layerClasses(const std::string& dump) {
    std::vector<LayerClass> layers;
    const size_t start = dump.find("==========\nTargetLayer:");
    const size_t end = dump.find("==========\nPelto State:");
    if (start == std::string::npos || end == std::string::npos) return layers;
    std::istringstream lines(dump.substr(start, end - start));
    std::string line;
    std::string section;
    while (std::getline(lines, line)) {
        for (const char* name : kLayerSections) {
            if (line == name) section = line.substr(0, line.size() - 1);
        }
        if (line.size() > 1 && line[0] == '\t' && line[1] != '\t') {
            const std::string name = line.substr(1);
            layers.push_back({name, lookupName(name), section});
        }
    }
    return layers;
}

// Why the path cannot be read as a rule file at all: missing, a directory, a
// FIFO or a device, or larger than the library reads.
std::optional<Finding> fileProblem(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        return fileFinding(Finding::Severity::Error,
                           errno == ENOENT ? "no-such-file" : "cannot-read",
                           errno == ENOENT ? "there is no such file"
                                           : std::string("cannot read it: ") + std::strerror(errno),
                           "give the path of the rule file");
    }
    if (S_ISDIR(info.st_mode)) {
        return fileFinding(Finding::Severity::Error, "not-a-file",
                           "this is a directory, not a rule file",
                           "give the path of the rule file inside it");
    }
    if (!S_ISREG(info.st_mode)) {
        // The library reads only regular files; reading a FIFO or a device
        // here could block or never end.
        return fileFinding(Finding::Severity::Error, "not-a-file",
                           "this is not a regular file (a FIFO, a socket or a device)",
                           "give the path of the rule file itself");
    }
    if (static_cast<unsigned long long>(info.st_size) > kMaxRuleFileBytes) {
        return fileFinding(Finding::Severity::Error, "too-large",
                           "the file has " + std::to_string(info.st_size) +
                                   " bytes; the library reads at most " +
                                   std::to_string(kMaxRuleFileBytes),
                           "a rule file is a few kilobytes: check that this is the rule file");
    }
    return std::nullopt;
}

// Reads the file with the same checks again, without blocking: the path may
// have been replaced by a FIFO or grown since the stat.
std::optional<Finding> readProblem(const std::string& path, std::string* text, uintmax_t* size) {
    std::string why;
    const bool read = readRegularFile(path, kMaxRuleFileBytes, text, &why);
    *size = text->size();
    if (read) return std::nullopt;
    if (why.rfind(path + ": ", 0) == 0) why.erase(0, path.size() + 2);
    return fileFinding(Finding::Severity::Error, "cannot-read", "cannot read it: " + why,
                       "make the file readable");
}

// What in the file's bytes keeps it from being a rule file before any JSON is read.
std::optional<Finding> contentProblem(const std::string& text) {
    if (std::optional<Finding> encoding = encodingProblem(text)) return encoding;
    if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
        return fileFinding(
                Finding::Severity::Error, "empty-file",
                text.empty() ? "the file is empty (0 bytes)" : "the file holds only white space",
                "a rule file is a JSON object with at least \"target_layers\" (see "
                "config/examples/pelto_config.json)");
    }
    return std::nullopt;
}

} // namespace

RuleFileCheck::RuleFileCheck(PeltoLibrary& library, Options options)
      : mLibrary(library),
        mOptions(std::move(options)),
        mSink([this](const LogLine& line) { mLines.push_back(line); }) {}

FileReport RuleFileCheck::check(const std::string& path) {
    FileReport report;
    report.file = path;
    std::string text;
    std::optional<Finding> problem = fileProblem(path);
    if (!problem) problem = readProblem(path, &text, &report.sizeBytes);
    if (!problem) problem = contentProblem(text);
    if (problem) {
        report.findings.push_back(std::move(*problem));
        report.verdict = "not loaded: " + report.findings.front().message;
        decide(report);
        return report;
    }
    loadWithLibrary(path, report);
    lintText(std::move(text), report);
    warnIfLarge(report);
    decide(report);
    return report;
}

void RuleFileCheck::lintText(std::string text, FileReport& report) const {
    std::vector<Finding> lint = scanRuleFileSyntax(text);
    RuleFileText parsed;
    std::string parseError;
    if (parsed.parse(std::move(text), &parseError)) {
        for (Finding& finding : report.findings) {
            if (!finding.path.empty()) finding.line = parsed.lineOfPath(finding.path);
        }
        for (Finding& finding : lintRuleFile(parsed)) lint.push_back(std::move(finding));
    }
    // In file order, as a reader goes through it.
    std::stable_sort(lint.begin(), lint.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    for (Finding& finding : lint) report.findings.push_back(std::move(finding));
}

void RuleFileCheck::warnIfLarge(FileReport& report) const {
    if (report.sizeBytes <= kLargeFileBytes) return;
    std::ostringstream message;
    message.precision(1);
    message << std::fixed << "the file is " << report.sizeBytes / 1048576.0
            << " MiB; the library took " << report.loadMilliseconds
            << " ms to load it here, and loads it at every controller creation and rule reload";
    report.findings.insert(report.findings.begin(),
                           fileFinding(Finding::Severity::Warning, "large-file", message.str(),
                                       "keep the rule file to the names and rules it needs"));
}

void RuleFileCheck::loadWithLibrary(const std::string& path, FileReport& report) {
    mLines.clear();
    // The host build of the library reads its rule file from here: the
    // exported entry points, all this tool has, take no path.
    setenv("PELTO_CONFIG_PATH", path.c_str(), 1);
    const auto start = std::chrono::steady_clock::now();
    // A list-mode controller, as a compositor creates it; none of these
    // callbacks is reached, since nothing is composited.
    PeltoController* controller = mLibrary.createPeltoController(
            /*useList=*/true, [](const sp<IBinder>&) -> void* { return nullptr; },
            [](const sp<IBinder>&) { return 1; }, nullptr,
            [](const PeltoController::BufferLayerVisitor&) {}, [] { return 16'666'666L; },
            [](bool) {}, [] {}, [] {}, [] {});
    report.loadMilliseconds =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                    .count();
    // Stand-ins for the compositor's layer pointers: only compared, never read.
    std::vector<char> layerIds(mOptions.layers.size());
    for (size_t i = 0; i < mOptions.layers.size(); ++i) {
        mLibrary.registerLayer(controller, &layerIds[i], mOptions.layers[i]);
    }
    std::string dump;
    mLibrary.dump(controller, dump);
    mLibrary.destroyPeltoController(controller);

    report.loaded = true;
    report.loadConfigSucceeded = dump.rfind("mLoadConfigSucceeded: 1\n", 0) == 0;
    report.configuration = configurationPart(dump, !mOptions.layers.empty());
    report.layers = layerClasses(dump);
    report.findings = readLoaderLines(mLines);
}

void RuleFileCheck::decide(FileReport& report) const {
    bool loadFailed = false;
    for (const Finding& finding : report.findings)
        loadFailed = loadFailed || isLoadFailure(finding);
    if (report.loaded && !report.loadConfigSucceeded && report.errors() == 0) {
        // Every cause the tool knows is counted above; this keeps the count
        // honest should the library learn a new one.
        Finding finding = fileFinding(Finding::Severity::Error, "load-not-clean",
                                      "the dump says mLoadConfigSucceeded: 0",
                                      "run with --verbose to see every line the library logged");
        report.findings.push_back(finding);
    }
    const int warnings = report.warnings() + report.lintWarnings();
    if (!report.loaded) {
        report.rejected = true;
    } else if (loadFailed) {
        report.rejected = true;
        report.verdict = "nothing could be loaded from the file";
    } else if (report.errors() > 0) {
        report.rejected = true;
        report.verdict = "the file loaded with errors; mLoadConfigSucceeded is 0";
    } else if (mOptions.strict && warnings > 0) {
        report.rejected = true;
        report.verdict = "warnings are not allowed with --strict";
    } else {
        report.verdict = "loaded cleanly";
    }
}

} // namespace android::tools
