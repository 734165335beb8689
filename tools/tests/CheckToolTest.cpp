// pelto-check: the lint's findings on the rule files in lint/ (each with a
// .expected list of "code path"), and the program's JSON report, exit status
// and counts over several files at once.
#include <stdio.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <android/log.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "tools/check/LoaderLog.h"
#include "tools/check/RuleFileText.h"
#include "tools/check/RuleLint.h"

namespace android::tools {
namespace {

// Set by CTest: the program under test and this folder.
const std::string kCheck = std::getenv("PELTO_CHECK") != nullptr ? std::getenv("PELTO_CHECK") : "";
const std::string kTestDir =
        std::getenv("PELTO_TOOL_TESTS_DIR") != nullptr ? std::getenv("PELTO_TOOL_TESTS_DIR") : "";

std::string readFile(const std::string& path) {
    std::ifstream stream(path);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::vector<Finding> lint(const std::string& path) {
    RuleFileText text;
    std::string error;
    EXPECT_TRUE(text.parse(readFile(path), &error)) << path << ": " << error;
    return lintRuleFile(text);
}

// Runs pelto-check with `args` (shell words); returns its stdout and exit status.
std::string runCheck(const std::string& args, int* status) {
    FILE* pipe = popen((kCheck + " " + args + " 2>/dev/null").c_str(), "r");
    std::string out;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) out.append(buffer, n);
    *status = WEXITSTATUS(pclose(pipe));
    return out;
}

Json::Value runJson(const std::string& args, int* status) {
    Json::Value root;
    std::string errors;
    std::istringstream stream(runCheck("--json " + args, status));
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &root, &errors)) << errors;
    return root;
}

const Json::Value* findingAt(const Json::Value& file, const std::string& path) {
    for (const Json::Value& finding : file["findings"]) {
        if (finding["path"].asString() == path) return &finding;
    }
    return nullptr;
}

TEST(RuleLintTest, findsEveryMistakeOfTheTestFilesAndNothingElse) {
    for (const std::string stem : {"ten_mistakes", "more_mistakes"}) {
        std::vector<std::string> expected;
        std::ifstream list(kTestDir + "/lint/" + stem + ".expected");
        for (std::string line; std::getline(list, line);) expected.push_back(line);
        std::vector<std::string> actual;
        for (const Finding& finding : lint(kTestDir + "/lint/" + stem + ".json")) {
            actual.push_back(finding.code + " " + finding.path);
        }
        std::sort(expected.begin(), expected.end());
        std::sort(actual.begin(), actual.end());
        EXPECT_EQ(expected, actual) << stem;
    }
}

TEST(RuleLintTest, namesTheKeyThatWasMeantAndTheLine) {
    const std::vector<Finding> findings = lint(kTestDir + "/lint/ten_mistakes.json");
    const auto at = [&](const std::string& path) {
        return *std::find_if(findings.begin(), findings.end(),
                             [&](const Finding& f) { return f.path == path; });
    };
    EXPECT_EQ("did you mean \"ignore_names\"?", at("target_layers[0].ignore_name").fix);
    EXPECT_EQ(9, at("target_layers[0].ignore_name").line);
    EXPECT_EQ("did you mean \"always_true\"?", at("exception_rule[3].alwaystrue").fix);
    EXPECT_EQ("write \"SurfaceView[com.example.player/com.example.player.PlayerActivity](BLAST)\"",
              at("target_layers[0].name").fix);
}

TEST(LoaderLogTest, givesEveryLoaderLineACodeAPathAndAFix) {
    const std::vector<LogLine> lines = {
            {ANDROID_LOG_ERROR, "PeltoConfig", "parse fail, * Line 3, Column 7\n  Syntax error"},
            {ANDROID_LOG_ERROR, "PeltoConfig", "target_layers[1].name is not a string"},
            {ANDROID_LOG_ERROR, "PeltoConfig", "value1 > value2"},
            {ANDROID_LOG_INFO, "PeltoConfig", "excpetion rule entry load fail, i 2"},
            {ANDROID_LOG_ERROR, "PeltoConfig", "a line pelto-check has never seen"},
    };
    const std::vector<Finding> findings = readLoaderLines(lines);
    ASSERT_EQ(5u, findings.size());
    const std::pair<const char*, const char*> expected[] = {
            {"json-syntax", ""},
            {"wrong-type", "target_layers[1].name"},
            {"reversed-range", "exception_rule[2].layer_screen_size_ratio"},
            {"entry-dropped", "exception_rule[2]"},
            {"loader-message", ""},
    };
    for (size_t i = 0; i < findings.size(); ++i) {
        EXPECT_EQ(expected[i].first, findings[i].code) << i;
        EXPECT_EQ(expected[i].second, findings[i].path) << i;
        EXPECT_FALSE(findings[i].fix.empty()) << i;
        EXPECT_EQ(lines[i].message, findings[i].message) << i;
    }
    EXPECT_EQ(3, findings[0].line);
    EXPECT_EQ(7, findings[0].column);
}

TEST(PeltoCheckTest, namesEachLoaderMistakeWithACodeAndAFix) {
    int status = -1;
    const Json::Value file = runJson(kTestDir + "/lint/loader_mistakes.json", &status)["files"][0];
    EXPECT_EQ(1, status);
    std::vector<std::string> codes;
    for (const Json::Value& finding : file["findings"]) {
        codes.push_back(finding["code"].asString() + " " + finding["path"].asString());
        EXPECT_FALSE(finding["fix"].asString().empty()) << codes.back();
    }
    const std::vector<std::string> expected = {
            "not-boolean general_rule.on_when_has_other_layer",
            "not-numeric exception_rule[0].layer_screen_size_ratio.value1",
            "reversed-range exception_rule[1].layer_screen_size_ratio",
            "not-boolean exception_rule[2].focus"};
    EXPECT_EQ(expected, codes);
}

TEST(PeltoCheckTest, reportsSeveralFilesAsOneJsonDocument) {
    int status = -1;
    const Json::Value root =
            runJson(kTestDir + "/lint/ten_mistakes.json " + kTestDir + "/lint/more_mistakes.json " +
                            kTestDir + "/malformed/rules_not_loadable.json " + kTestDir + "/lint " +
                            kTestDir + "/lint/empty.json no_such_file.json /dev/zero",
                    &status);
    EXPECT_EQ(1, status);
    EXPECT_EQ(1, root["exitCode"].asInt());
    const Json::Value& files = root["files"];
    ASSERT_EQ(7u, files.size());
    // Lint findings alone leave a file accepted.
    EXPECT_EQ("ok", files[0]["result"].asString());
    EXPECT_EQ(0, files[0]["errors"].asInt());
    EXPECT_EQ(11, files[0]["lintWarnings"].asInt());
    // A warning that clears mLoadConfigSucceeded is counted as the error it is.
    EXPECT_EQ("rejected", files[1]["result"].asString());
    EXPECT_EQ(1, files[1]["errors"].asInt());
    const Json::Value* unclean = findingAt(files[1], "general_rule.use_adaptive_timeout");
    ASSERT_NE(nullptr, unclean);
    EXPECT_EQ("W", (*unclean)["logPriority"].asString());
    EXPECT_EQ("error", (*unclean)["severity"].asString());
    // The loader's entry errors get their entry's path from the line after them.
    const Json::Value* range = findingAt(files[2], "exception_rule[0].layer_screen_size_ratio");
    ASSERT_NE(nullptr, range);
    EXPECT_EQ("value1 > value2", (*range)["message"].asString());
    EXPECT_EQ(6, (*range)["line"].asInt());
    ASSERT_NE(nullptr, findingAt(files[2], "general_rule.on_when_has_other_layer"));
    // A directory, an empty file, a missing file and a device (which would
    // never end if read) are named, not parsed.
    const char* codes[] = {"not-a-file", "empty-file", "no-such-file", "not-a-file"};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ("rejected", files[3 + i]["result"].asString());
        EXPECT_FALSE(files[3 + i]["loaded"].asBool());
        EXPECT_EQ(1, files[3 + i]["errors"].asInt());
        EXPECT_EQ(codes[i], files[3 + i]["findings"][0]["code"].asString());
    }
    EXPECT_EQ("rejected",
              runJson("--strict " + kTestDir + "/lint/ten_mistakes.json",
                      &status)["files"][0]["result"]
                      .asString());
    EXPECT_EQ(1, status);
}

TEST(PeltoCheckTest, warnsAboutALargeFileAndStillLoadsIt) {
    const std::string path = testing::TempDir() + "/large_rules.json";
    {
        std::ofstream out(path);
        out << "{ \"target_layers\": [ { \"name\": \"a\" } ], \"general_rule\": { "
               "\"on_when_has_other_layer\": true, \"use_adaptive_timeout\": true }"
            << std::string(5u << 20, ' ') << "}";
    }
    int status = -1;
    const Json::Value file = runJson(path, &status)["files"][0];
    EXPECT_EQ(0, status);
    EXPECT_EQ("large-file", file["findings"][0]["code"].asString());
    EXPECT_EQ("warning", file["findings"][0]["severity"].asString());
    EXPECT_EQ("rejected", runJson("--strict " + path, &status)["files"][0]["result"].asString());
    EXPECT_EQ(1, status);
    std::remove(path.c_str());
}

TEST(PeltoCheckTest, namesEachTextMistakeWhereItIs) {
    const auto targets = [](const std::string& name) {
        return "\"target_layers\": [ { \"name\": \"" + name + "\" } ]";
    };
    const std::string general =
            "\"general_rule\": { \"on_when_has_other_layer\": true, \"use_adaptive_timeout\": "
            "true }, \"exception_rule\": [ { \"focus\": true } ]";
    const std::string clean = "{" + targets("a") + ", " + general;
    std::string utf16;
    for (const char c : clean + "}") utf16 += std::string(1, c) + '\0';
    struct Case {
        std::string text;
        const char* code;
        int line;
        int column;
        const char* result; // a file the library loads is only warned about
    };
    const Case cases[] = {
            {clean + "\n,}", "trailing-comma", 2, 1, "ok"},
            {clean + ",\n" + targets("b") + "}", "duplicate-key", 2, 1, "ok"},
            {clean + "}\n{}", "extra-value", 2, 1, "ok"},
            {"{" + general + ",\n" + targets("a\\u0000") + "}", "nul-in-string", 2, 30, "ok"},
            {"{" + general + ",\n" + targets(std::string("a\0", 2)) + "}", "nul-in-string", 2, 30,
             "ok"},
            {"{" + general + ",\n" + targets("caf\xe9") + "}", "not-utf8", 2, 34, "ok"},
            {"\xEF\xBB\xBF" + clean + "}", "utf8-bom", 1, 1, "ok"},
            {utf16, "utf16-file", 1, 1, "rejected"},
            {"\x1F\x8B\x08\x00", "gzip-file", 1, 1, "rejected"},
    };
    const std::string path = testing::TempDir() + "/text_mistake.json";
    for (const Case& c : cases) {
        std::ofstream(path, std::ios::binary) << c.text;
        int status = -1;
        const Json::Value file = runJson(path, &status)["files"][0];
        EXPECT_EQ(c.result, file["result"].asString()) << c.code;
        const Json::Value* found = nullptr;
        for (const Json::Value& finding : file["findings"]) {
            if (finding["code"] == c.code) found = &finding;
        }
        ASSERT_NE(nullptr, found) << c.code;
        EXPECT_EQ(c.line, (*found)["line"].asInt()) << c.code;
        EXPECT_EQ(c.column, (*found)["column"].asInt()) << c.code;
        EXPECT_FALSE((*found)["fix"].asString().empty()) << c.code;
    }
    std::remove(path.c_str());
}

TEST(PeltoCheckTest, jsonIsUtf8WhateverBytesTheNamesHold) {
    const std::string path = testing::TempDir() + "/rules_\xff.json";
    std::ofstream(path) << "{ \"target_layers\": [ { \"name\": \"caf\xe9\" } ] }";
    const std::string args = "--verbose --layer 'caf\xe9#1' '" + path + "'";
    int status = -1;
    runCheck("--json " + args +
                     " | python3 -c 'import json, sys; "
                     "json.loads(sys.stdin.buffer.read().decode(\"utf-8\"))'",
             &status);
    EXPECT_EQ(0, status);
    const Json::Value file = runJson(args, &status)["files"][0];
    EXPECT_EQ(testing::TempDir() + "/rules_\xEF\xBF\xBD.json", file["file"].asString());
    EXPECT_EQ("caf\xEF\xBF\xBD#1", file["layers"][0]["name"].asString());
    std::remove(path.c_str());
}

TEST(PeltoCheckTest, helpVersionAndUsageErrors) {
    int status = -1;
    EXPECT_NE(std::string::npos, runCheck("--help", &status).find("\nexit status:\n"));
    EXPECT_EQ(0, status);
    EXPECT_EQ(0u, runCheck("--version", &status).rfind("pelto-check 2.0", 0));
    EXPECT_EQ(0, status);
    runCheck("--no-such-option x.json", &status);
    EXPECT_EQ(2, status);
    runCheck("", &status);
    EXPECT_EQ(2, status);
    const std::string text =
            runCheck(kTestDir + "/lint/ten_mistakes.json " + kTestDir + "/lint", &status);
    EXPECT_NE(std::string::npos, text.find("\n2 rule files: 1 OK, 1 REJECTED\n"));
    EXPECT_EQ(1, status);
}

} // namespace
} // namespace android::tools
