// Rule files that no device should carry, generated at run time: deep nesting,
// a 10 MB file (2 MB under sanitizers), numbers beyond every range, NaN and infinities, a
// byte-order mark, comments, duplicate keys and bytes that are not UTF-8. Each one either loads or
// is rejected with an error line that says why; none may crash or hang the loader. How long the 10
// MB file takes and how much memory it needs is measured outside the tests (docs/RELIABILITY.md).
#include <string>
#include <vector>

#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/PeltoConfig.h"
#include "support/LogCapture.h"
#include "support/RuleFile.h"
#include "support/SanitizedBuild.h"

namespace android {
namespace {

using test::LogLine;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kGeneralRule =
        R"("general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": true})";
// The rest of a clean file after "target_layers": both switches and one exception rule.
const std::string kRest =
        std::string(kGeneralRule) + R"(, "exception_rule": [{"name": "d", "always_true": 1}])";

std::string repeat(const std::string& text, size_t times) {
    std::string out;
    out.reserve(text.size() * times);
    for (size_t i = 0; i < times; ++i) out += text;
    return out;
}

// A clean rule file with one target, `name` written as it is (quoted or not).
std::string withTarget(const std::string& name) {
    return R"({"target_layers": [{"name": )" + name + "}], " + kRest + "}";
}

// A clean rule file with target "t" and the given exception element.
std::string withException(const std::string& element) {
    return R"({"target_layers": [{"name": "t"}], )" + std::string(kGeneralRule) +
            R"(, "exception_rule": [)" + element + "]}";
}

struct HostileFile {
    const char* what;
    std::string text;
    // Empty: the whole file is rejected. Otherwise a target the file loads.
    std::string loadsTarget;
    // Text of an error line the load must log; empty: no warning or error at all.
    const char* error;
};

std::vector<HostileFile> hostileFiles() {
    const std::string ratio = R"({"name": "r", "layer_screen_size_ratio": )";
    return {
            {"nesting far beyond the parser's limit", std::string(100'000, '['), "",
             "parse fail, Exceeded stackLimit in readValue()."},
            {"objects nested far beyond the parser's limit",
             R"({"target_layers": )" + repeat(R"({"a": )", 100'000), "",
             "parse fail, Exceeded stackLimit in readValue()."},
            {"nesting one past the parser's limit, closed",
             repeat("[", 1000) + "1" + repeat("]", 1000), "",
             "parse fail, Exceeded stackLimit in readValue()."},
            {"nesting just within the limit where a name is expected",
             R"({"target_layers": [{"name": "t", "ignore_names": [)" + repeat("[", 900) +
                     repeat("]", 900) + "]}], " + kRest + "}",
             "t", "target_layers[0].ignore_names[0] is not a string"},
            {"a bound beyond double",
             withException(ratio + R"({"condition": "1", "value1": 1e400}})"), "",
             "'1e400' is not a number."},
            {"a negative bound beyond double",
             withException(ratio + R"({"condition": "1", "value1": -1e400}})"), "",
             "'-1e400' is not a number."},
            {"a bound beyond float (becomes infinite)",
             withException(ratio + R"({"condition": "2", "value1": -1e39, "value2": 1e300}})"), "t",
             ""},
            {"a name beyond 64-bit integers (read as its text)",
             withTarget("123456789012345678901234567890"), "1.2345678901234568e+29", ""},
            {"a condition type beyond int32",
             withException(ratio + R"({"condition": "99999999999", "value1": 1}})"), "t",
             "invalid rule.conditionType -1, 99999999999"},
            {"a numeric condition beyond 64-bit integers (its text is \"1e+20\", type 1)",
             withException(ratio + R"({"condition": 99999999999999999999, "value1": 1}})"), "t",
             ""},
            {"a switch beyond 64-bit integers",
             R"({"target_layers": [{"name": "t"}], "general_rule": {"on_when_has_other_layer":
                 -99999999999999999999999, "use_adaptive_timeout": 1e308},
                 "exception_rule": [{"name": "d", "always_true": 1}]})",
             "t", ""},
            {"NaN as a bound", withException(ratio + R"({"condition": "1", "value1": NaN}})"), "",
             "Syntax error: value, object or array expected."},
            {"Infinity as a bound",
             withException(ratio + R"({"condition": "1", "value1": Infinity}})"), "",
             "Syntax error: value, object or array expected."},
            {"-Infinity as a switch",
             R"({"target_layers": [{"name": "t"}], "general_rule": {"on_when_has_other_layer":
                 -Infinity, "use_adaptive_timeout": true}})",
             "", "Syntax error: value, object or array expected."},
            {"a UTF-8 byte-order mark", "\xEF\xBB\xBF" + withTarget(R"("t")"), "t", ""},
            {"comments of both kinds",
             "// head\n" + withTarget(R"(/* before */ "t" // after
                                      )") +
                     "\n/* tail */",
             "t", ""},
            {"a comment left open inside the root", R"({"target_layers": [{"name": "t"}] /*)", "",
             "Missing ',' or '}' in object declaration"},
            {"text after the root value (ignored)", withTarget(R"("t")") + R"( {"x": [)", "t", ""},
            {"duplicate keys (the last one counts)",
             R"({"target_layers": [{"name": "a", "name": "dup"}], "target_layers": [{"name": "b",
                 "name": "last"}], )" +
                     kRest + "}",
             "last", ""},
            {"bytes that are not UTF-8 inside a name", withTarget("\"\xFF\xFE\xC0\x80\""),
             "\xFF\xFE\xC0\x80", ""},
            {"bytes that are not UTF-8 outside strings",
             R"({"target_layers": [{"name": "t"}])"
             "\xFF\x80}",
             "", "Missing ',' or '}' in object declaration"},
            {"a lone UTF-16 surrogate", withTarget(R"("\ud800")"), "",
             "additional six characters expected to parse unicode surrogate pair."},
            {"an escaped NUL inside a name", withTarget(R"("a\u0000b")"), std::string("a\0b", 3),
             ""},
            {"a name of one megabyte", withTarget('"' + std::string(1 << 20, 'n') + '"'),
             std::string(1 << 20, 'n'), ""},
            {"an empty file", "", "", "Syntax error: value, object or array expected."},
    };
}

class PeltoHostileRuleFileTest : public ::testing::Test {
protected:
    std::vector<LogLine> problems() const {
        std::vector<LogLine> out;
        for (const LogLine& line : mLog.lines("PeltoConfig")) {
            if (line.priority >= ANDROID_LOG_WARN) out.push_back(line);
        }
        return out;
    }

    test::ScopedRuleFile mFile;
    test::LogCapture mLog;
};

TEST_F(PeltoHostileRuleFileTest, eachFileLoadsOrIsRejectedWithAReason) {
    for (const HostileFile& file : hostileFiles()) {
        SCOPED_TRACE(file.what);
        mFile.write(file.text);
        mLog.clear();
        PeltoConfig config(mFile.path());
        const bool rejected = file.loadsTarget.empty();
        EXPECT_EQ(config.isTargetLayer(file.loadsTarget, nullptr), !rejected);
        EXPECT_EQ(config.loadConfigSucceeded(), !rejected && std::string(file.error).empty());
        if (std::string(file.error).empty()) {
            EXPECT_THAT(problems(), IsEmpty());
        } else {
            EXPECT_THAT(problems(),
                        Contains(AllOf(Field(&LogLine::priority, ANDROID_LOG_ERROR),
                                       Field(&LogLine::message, HasSubstr(file.error)))));
        }
        if (rejected) {
            EXPECT_THAT(problems(),
                        Contains(Field(&LogLine::message, "loadConfig failed, ret -5")));
        }
        // The same file again gives the same configuration.
        std::string first;
        config.dump(first);
        EXPECT_EQ(config.loadConfig(true),
                  rejected ? PeltoConfig::kLoadFailed : PeltoConfig::kLoadOk);
        std::string second;
        config.dump(second);
        EXPECT_EQ(first, second);
    }
}

TEST_F(PeltoHostileRuleFileTest, tenMegabytesOfTargetsLoad) {
    // Every target logs an info line; only warnings and errors are kept here.
    const int priority = __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    // A sanitizer makes this test five times slower (11 s under TSan), and so can an
    // emulator; a smaller file there still checks the loader's memory use and keeps the suite
    // within ctest's limit on a busy machine. The g++ build keeps the full size, where a slow
    // dump would show.
    constexpr size_t kSize = (test::kSlowBuild ? 2 : 10) * 1024 * 1024;
    std::string text = "{" + kRest + R"(, "target_layers": [)";
    size_t targets = 0;
    while (text.size() < kSize) {
        text += (targets == 0 ? "" : ", ") + std::string(R"({"name": "layer-)") +
                std::to_string(targets) + R"(", "ignore_names": ["ignored-)" +
                std::to_string(targets) + R"("]})";
        ++targets;
    }
    text += "]}";
    mFile.write(text);

    PeltoConfig config(mFile.path());
    __android_log_set_minimum_priority(priority);

    EXPECT_TRUE(config.loadConfigSucceeded());
    EXPECT_THAT(problems(), IsEmpty());
    const PeltoTargetLayerInfo* last = nullptr;
    ASSERT_TRUE(config.isTargetLayer("layer-" + std::to_string(targets - 1), &last));
    EXPECT_EQ(last->id, static_cast<int32_t>(targets - 1));
    const PeltoTargetIgnoreInfo* ignored = nullptr;
    ASSERT_TRUE(config.isTargetIgnoreLayer("ignored-0", &ignored));
    EXPECT_EQ(ignored->id, 0);
    EXPECT_FALSE(config.isTargetLayer("layer-" + std::to_string(targets), nullptr));

    // Each target is listed with its own ignored name. A dump that scanned
    // every ignored name for every target ran for minutes here.
    std::string dump;
    config.dump(dump);
    const std::string lastId = std::to_string(targets - 1);
    EXPECT_THAT(dump, HasSubstr("\n0: layer-0\n\tignore name: ignored-0\n1: layer-1\n"));
    EXPECT_THAT(dump,
                HasSubstr("\n" + lastId + ": layer-" + lastId + "\n\tignore name: ignored-" +
                          lastId + "\n"));
}

} // namespace
} // namespace android
