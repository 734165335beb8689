#include "tools/check/CheckReport.h"

#include <memory>

#include <json/json.h>

#include "tools/check/Utf8.h"
#include "tools/check/Version.h"

namespace android::tools {
namespace {

std::string plural(int n, const char* word) {
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

char severityLetter(const Finding& finding) {
    switch (finding.severity) {
        case Finding::Severity::Error:
            return 'E';
        case Finding::Severity::Warning:
            return 'W';
        case Finding::Severity::Info:
            return 'I';
    }
    return '?';
}

// A message, continuation lines indented under the first.
std::string indented(const std::string& message, const char* indent) {
    std::string out;
    for (char c : message) {
        out += c;
        if (c == '\n') out += indent;
    }
    return out;
}

void writeFinding(const Finding& finding, FILE* out) {
    std::string where = finding.path.empty() ? "(file)" : finding.path;
    if (finding.line > 0) {
        where += " (line " + std::to_string(finding.line) +
                (finding.column > 0 ? ", column " + std::to_string(finding.column) : "") + ")";
    }
    std::fprintf(out, "  %c %s: %s", severityLetter(finding), where.c_str(),
                 indented(finding.message, "      ").c_str());
    if (!finding.code.empty()) std::fprintf(out, "  [%s]", finding.code.c_str());
    std::fprintf(out, "\n");
    if (finding.source == Finding::Source::Loader && finding.logPriority == 'W' &&
        finding.severity == Finding::Severity::Error) {
        std::fprintf(out, "      (logged as a warning; it marks the load as not clean)\n");
    }
    if (!finding.fix.empty()) std::fprintf(out, "      fix: %s\n", finding.fix.c_str());
}

// Writes the findings of one source; returns how many were written.
int writeFindings(const FileReport& report, Finding::Source source, bool verbose, FILE* out) {
    int written = 0;
    for (const Finding& finding : report.findings) {
        if (finding.source != source) continue;
        if (finding.severity == Finding::Severity::Info && !verbose) continue;
        writeFinding(finding, out);
        ++written;
    }
    return written;
}

// Every string of the report goes through here: file and layer names and
// the rule file's own text may hold bytes that are not UTF-8, which would
// make the whole document unreadable to a JSON reader.
Json::Value text(const std::string& value) {
    return Json::Value(validUtf8(value));
}

Json::Value findingJson(const Finding& finding) {
    Json::Value item(Json::objectValue);
    item["source"] = sourceName(finding.source);
    item["severity"] = severityName(finding.severity);
    if (!finding.code.empty()) item["code"] = finding.code;
    item["path"] = text(finding.path);
    if (finding.line > 0) item["line"] = finding.line;
    if (finding.column > 0) item["column"] = finding.column;
    item["message"] = text(finding.message);
    if (!finding.fix.empty()) item["fix"] = text(finding.fix);
    if (finding.logPriority != 0) item["logPriority"] = std::string(1, finding.logPriority);
    return item;
}

Json::Value fileJson(const FileReport& report, bool verbose) {
    Json::Value file(Json::objectValue);
    file["file"] = text(report.file);
    file["result"] = report.rejected ? "rejected" : "ok";
    file["verdict"] = text(report.verdict);
    file["loaded"] = report.loaded;
    file["loadConfigSucceeded"] = report.loadConfigSucceeded;
    file["sizeBytes"] = static_cast<Json::UInt64>(report.sizeBytes);
    file["loadMilliseconds"] = report.loadMilliseconds;
    file["errors"] = report.errors();
    file["warnings"] = report.warnings();
    file["lintWarnings"] = report.lintWarnings();
    Json::Value& findings = file["findings"] = Json::Value(Json::arrayValue);
    for (const Finding& finding : report.findings) {
        if (finding.severity == Finding::Severity::Info && !verbose) continue;
        findings.append(findingJson(finding));
    }
    Json::Value& layers = file["layers"] = Json::Value(Json::arrayValue);
    for (const LayerClass& layer : report.layers) {
        Json::Value item(Json::objectValue);
        item["name"] = text(layer.name);
        item["lookupName"] = text(layer.lookupName);
        item["classification"] = layer.classification;
        layers.append(item);
    }
    file["configuration"] = text(report.configuration);
    return file;
}

} // namespace

int FileReport::count(Finding::Source source, Finding::Severity severity) const {
    int n = 0;
    for (const Finding& finding : findings) {
        n += finding.source == source && finding.severity == severity;
    }
    return n;
}

int FileReport::errors() const {
    return count(Finding::Source::File, Finding::Severity::Error) +
            count(Finding::Source::Loader, Finding::Severity::Error);
}

int FileReport::warnings() const {
    return count(Finding::Source::File, Finding::Severity::Warning) +
            count(Finding::Source::Loader, Finding::Severity::Warning);
}

int FileReport::lintWarnings() const {
    return count(Finding::Source::Lint, Finding::Severity::Warning);
}

void writeText(const FileReport& report, bool verbose, FILE* out) {
    std::fprintf(out, "rule file: %s\n", report.file.c_str());
    writeFindings(report, Finding::Source::File, verbose, out);
    if (report.loaded) {
        std::fprintf(out, "loader (what the library logs under \"PeltoConfig\"):\n");
        if (writeFindings(report, Finding::Source::Loader, verbose, out) == 0) {
            std::fprintf(out, "  no warnings or errors\n");
        }
        std::fprintf(out, "lint (what the library accepts, but is most likely a mistake):\n");
        if (writeFindings(report, Finding::Source::Lint, verbose, out) == 0) {
            std::fprintf(out, "  nothing found\n");
        }
        for (const LayerClass& layer : report.layers) {
            std::fprintf(out, "layer %s: looked up as \"%s\": %s\n", layer.name.c_str(),
                         layer.lookupName.c_str(), layer.classification.c_str());
        }
        std::fprintf(out, "\nconfiguration as loaded:\n%s\n", report.configuration.c_str());
    }
    const std::string counts = "(" + plural(report.errors(), "error") + ", " +
            plural(report.warnings(), "warning") + ", " +
            plural(report.lintWarnings(), "lint warning") + ")";
    std::fprintf(out, "%s: %s %s\n", report.rejected ? "REJECTED" : "OK", report.verdict.c_str(),
                 counts.c_str());
}

void writeJson(const std::vector<FileReport>& reports, bool strict, bool verbose, int exitCode,
               std::ostream& out) {
    Json::Value root(Json::objectValue);
    root["tool"] = "pelto-check";
    root["version"] = kPeltoCheckVersion;
    root["strict"] = strict;
    root["exitCode"] = exitCode;
    Json::Value& files = root["files"] = Json::Value(Json::arrayValue);
    for (const FileReport& report : reports) files.append(fileJson(report, verbose));
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    writer->write(root, &out);
    out << "\n";
}

} // namespace android::tools
