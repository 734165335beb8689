#include <string>

#include <gtest/gtest.h>

#include "config/PeltoConfig.h"
#include "support/RuleFile.h"

namespace android {
namespace {

class PeltoConfigDumpTest : public ::testing::Test {
protected:
    void SetUp() override { SKIP_WITHOUT_RULE_FILE_PATH(); }

    std::string dumpOf(const std::string& json) {
        mFile.write(json);
        PeltoConfig config;
        std::string out;
        config.dump(out);
        return out;
    }

    test::ScopedRuleFile mFile;
};

TEST_F(PeltoConfigDumpTest, exampleFileDumpsSortedByName) {
    EXPECT_EQ(dumpOf(test::kExampleRuleFile),
              "mLoadConfigSucceeded: 1\n"
              "General Rule:\n"
              "\tstayOnWhenHasOtherLayer 1\n"
              "\tuseAdaptiveTimeout 0\n"
              "==========\n"
              "Target Layer\n"
              "0: example.player/VideoSurface\n"
              "\tignore name: example.player/Controls\n"
              "\tignore name: example.player/Subtitles\n"
              "1: example.reader/PageSurface\n"
              "==========\n"
              "Exception Rule\n"
              "Exception General Rule\n"
              ">\tcondition: bigger\n"
              "\tvalue1: 30\n"
              "example.dialog/Popup\n"
              ">\talways true: true\n"
              "example.keyboard/InputPanel\n"
              ">\tcondition: in_range\n"
              "\tvalue1: 10\n"
              "\tvalue2: 50\n"
              "\tfocus: true\n");
}

TEST_F(PeltoConfigDumpTest, configWithoutFileAppendsDefaults) {
    mFile.remove();
    PeltoConfig config;
    std::string out = "before\n";
    config.dump(out);
    EXPECT_EQ(out,
              "before\n"
              "mLoadConfigSucceeded: 1\n"
              "General Rule:\n"
              "\tstayOnWhenHasOtherLayer 1\n"
              "\tuseAdaptiveTimeout 1\n"
              "==========\n"
              "Target Layer\n"
              "==========\n"
              "Exception Rule\n"
              "Exception General Rule\n"
              ">\n");
}

TEST_F(PeltoConfigDumpTest, loadedRulesDumpInFileOrderAndOrphanIgnoresNowhere) {
    // "orphan" belongs to id 0, whose name was given again at id 2: it shows nowhere.
    // Entries of one name stay in file order across other elements.
    EXPECT_EQ(dumpOf(R"({
        "target_layers": [{"name": "b", "ignore_names": ["orphan"]},
                          {"name": "a", "ignore_names": ["z"]}, {"name": "b"}, {"name": "Z"},
                          {"name": "\u00e9"}],
        "general_rule": {"on_when_has_other_layer": 0, "use_adaptive_timeout": 1},
        "exception_rule": [
            {"layer_screen_size_ratio": {"condition": "0", "value1": 12.345678, "value2": 0.5},
             "focus": false},
            {}, {"always_true": true}, {"name": "failed", "focus": "yes"},
            {"name": "y", "layer_screen_size_ratio": {"condition": 1, "value1": 1e6}},
            {"name": "empty"},
            {"name": "y", "layer_screen_size_ratio": {"condition": "2", "value1": 5, "value2": 5},
             "focus": 0, "always_true": 1}]})"),
              "mLoadConfigSucceeded: 0\n"
              "General Rule:\n"
              "\tstayOnWhenHasOtherLayer 0\n"
              "\tuseAdaptiveTimeout 1\n"
              "==========\n"
              "Target Layer\n"
              "3: Z\n"
              "1: a\n"
              "\tignore name: z\n"
              "2: b\n"
              "4: \u00e9\n"
              "==========\n"
              "Exception Rule\n"
              "Exception General Rule\n"
              ">\tcondition: smaller\n"
              "\tvalue1: 12.3457\n"
              "\tvalue2: 0.5\n"
              "\tfocus: false\n"
              "\talways true: true\n"
              "empty\n"
              ">\n"
              "failed\n"
              ">\n"
              "y\n"
              ">\tcondition: bigger\n"
              "\tvalue1: 1e+06\n"
              "\tcondition: in_range\n"
              "\tvalue1: 5\n"
              "\tvalue2: 5\n"
              "\tfocus: false\n"
              "\talways true: true\n");
}

} // namespace
} // namespace android
