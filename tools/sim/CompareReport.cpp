#include "tools/sim/CompareReport.h"

#include <cstdio>
#include <filesystem>

namespace android::tools::sim {
namespace {

std::string reasonList(const std::vector<int32_t>& reasons) {
    std::string out;
    for (int32_t r : reasons) out += (out.empty() ? "" : " ") + std::to_string(r);
    return out.empty() ? "-" : out;
}

std::string fileName(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

// The saved share, or "-" where a run played no buffer to base it on.
std::string savedText(const CompareFigures& f, double value, const char* format) {
    if (!f.refreshBasis) return "-";
    char text[32];
    snprintf(text, sizeof(text), format, value);
    return text;
}

Json::Value figuresJson(const CompareFigures& f) {
    Json::Value out;
    out["rules"] = f.rules;
    out["on_percent"] = f.onPercent;
    out["hwc_toggles"] = f.hwcToggles;
    out["refreshes_saved_percent"] =
            f.refreshBasis ? Json::Value(f.refreshesSavedPercent) : Json::Value(Json::nullValue);
    out["reasons_seen"] = Json::Value(Json::arrayValue);
    for (int32_t r : f.reasons) out["reasons_seen"].append(r);
    return out;
}

} // namespace

void printCompare(FILE* out, const std::vector<CompareRow>& rows) {
    fprintf(out, "%-36s %-24s %7s %7s %9s  %s\n", "input", "rules", "On %", "toggles", "saved %",
            "reasons seen");
    for (const CompareRow& row : rows) {
        const std::string input = fileName(row.input);
        for (const CompareFigures* f : {&row.a, &row.b}) {
            fprintf(out, "%-36.36s %-24.24s %7.1f %7d %9s  %s\n", f == &row.a ? input.c_str() : "",
                    fileName(f->rules).c_str(), f->onPercent, f->hwcToggles,
                    savedText(*f, f->refreshesSavedPercent, "%.1f").c_str(),
                    reasonList(f->reasons).c_str());
        }
        const CompareFigures& both = row.a.refreshBasis ? row.b : row.a;
        fprintf(out, "%-36s %-24s %+7.1f %+7d %9s\n", "", "difference",
                row.b.onPercent - row.a.onPercent, row.b.hwcToggles - row.a.hwcToggles,
                savedText(both, row.b.refreshesSavedPercent - row.a.refreshesSavedPercent, "%+.1f")
                        .c_str());
    }
}

Json::Value compareJson(const std::vector<CompareRow>& rows) {
    Json::Value out(Json::arrayValue);
    for (const CompareRow& row : rows) {
        Json::Value item;
        item["input"] = row.input;
        item["a"] = figuresJson(row.a);
        item["b"] = figuresJson(row.b);
        item["difference"]["on_percent"] = row.b.onPercent - row.a.onPercent;
        item["difference"]["hwc_toggles"] = row.b.hwcToggles - row.a.hwcToggles;
        item["difference"]["refreshes_saved_percent"] = row.a.refreshBasis && row.b.refreshBasis
                ? Json::Value(row.b.refreshesSavedPercent - row.a.refreshesSavedPercent)
                : Json::Value(Json::nullValue);
        out.append(item);
    }
    return out;
}

} // namespace android::tools::sim
