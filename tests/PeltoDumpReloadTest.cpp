#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/PeltoRuleFileReader.h"
#include "controller/PeltoController.h"
#include "support/FakeCompositor.h"
#include "support/LogCapture.h"
#include "support/RuleFile.h"

namespace android {
namespace {

using test::dumpedState;
using test::FakeCompositor;
using test::LogCapture;
using test::ScopedRuleFile;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const void* const kVideo = reinterpret_cast<const void*>(0x1000);
const void* const kSubtitle = reinterpret_cast<const void*>(0x2000);
const void* const kKeyboard = reinterpret_cast<const void*>(0x3000);
const void* const kOther = reinterpret_cast<const void*>(0x4000);

constexpr const char* kRules = R"({
  "target_layers": [ { "name": "video", "ignore_names": ["subtitle"] } ],
  "general_rule": { "on_when_has_other_layer": true, "use_adaptive_timeout": true },
  "exception_rule": [ { "name": "keyboard", "focus": true } ]
})";

constexpr const char* kConfigText =
        "mLoadConfigSucceeded: 1\n"
        "General Rule:\n"
        "\tstayOnWhenHasOtherLayer 1\n"
        "\tuseAdaptiveTimeout 1\n"
        "==========\n"
        "Target Layer\n"
        "0: video\n"
        "\tignore name: subtitle\n"
        "==========\n"
        "Exception Rule\n"
        "Exception General Rule\n"
        ">\n"
        "keyboard\n"
        ">\tfocus: true\n";

class PeltoDumpReloadTest : public ::testing::Test {
protected:
    PeltoDumpReloadTest() {
        mController->registerLayer(kVideo, "video#0");
        mController->registerLayer(kSubtitle, "subtitle#0");
        mController->registerLayer(kKeyboard, "keyboard#7");
        mController->registerLayer(kOther, "other#0");
        mController->registerLayer(nullptr, "video#1"); // refused: no record
    }

    ScopedRuleFile mRules{kRules};
    FakeCompositor mHost;
    std::unique_ptr<PeltoController> mController =
            mHost.create(/*useList=*/true, mRules.platform());
};

TEST_F(PeltoDumpReloadTest, dumpShowsConfigurationLayersAndStatus) {
    mHost.setVisibleBufferLayers({{kVideo, 5000, true}, {kKeyboard, 250.5f, false}});
    mController->composite(false, false, 10000);

    std::string out = "kept\n";
    mController->dump(out);
    EXPECT_EQ(out,
              std::string("kept\n") + kConfigText +
                      "==========\n"
                      "TargetLayer:\n"
                      "\tvideo#0\n"
                      "\t\tid: 0\n"
                      "\t\tcurrent active\n"
                      "\t\tarea: 5000 focused: 1\n"
                      "TargetIgnoreLayer:\n"
                      "\tsubtitle#0\n"
                      "\t\ttargetId: 0\n"
                      "\t\tarea: 0 focused: 0\n"
                      "ExceptionLayer:\n"
                      "\tkeyboard#7\n"
                      "\t\tarea: 250.5 focused: 0\n"
                      "Nobody:\n"
                      "\tother#0\n"
                      "\t\tarea: 0 focused: 0\n"
                      "==========\n"
                      "Pelto State: On\n"
                      "Pelto State Reason: 551\n"
                      "HasOtherUI: 0\n"
                      "Fps: \n"
                      "\tqueueCount: 0\n"
                      "\tmaxQueueCount: 30\n"
                      "\tavgPeriod: 0 avgFps: 0\n"
                      "\tcurrentPeriod: 16666666\n");
}

TEST_F(PeltoDumpReloadTest, reloadReclassifiesEveryLayerUnderTheNewRules) {
    mHost.setVisibleBufferLayers({{kVideo, 5000}});
    mController->composite(false, false, 10000);
    ASSERT_EQ(dumpedState(*mController), "On 551");

    // "video" is no longer a target; "other" now is.
    mRules.write(R"({"target_layers": [{"name": "other"}],
        "general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": true}})");
    std::string out;
    mController->reloadConfigThenDump(out);
    EXPECT_THAT(out, StartsWith("Reload Succeeded\nmLoadConfigSucceeded: 1\n"));
    EXPECT_THAT(out,
                EndsWith("Target Layer\n0: other\n==========\nException Rule\n"
                         "Exception General Rule\n>\n"));

    std::string dump;
    mController->dump(dump);
    EXPECT_THAT(dump,
                HasSubstr("TargetLayer:\n\tother#0\n\t\tid: 0\n\t\tarea: 0 focused: 0\n"
                          "TargetIgnoreLayer:\nExceptionLayer:\nNobody:\n"
                          "\tvideo#0\n\t\tarea: 0 focused: 0\n"
                          "\tsubtitle#0\n\t\tarea: 0 focused: 0\n"
                          "\tkeyboard#7\n\t\tarea: 0 focused: 0\n"));
    // The state is left to the next composition.
    EXPECT_EQ(dumpedState(*mController), "On 551");
    mController->composite(false, false, 10000);
    EXPECT_EQ(dumpedState(*mController), "Off 455");
}

TEST_F(PeltoDumpReloadTest, failedReloadLeavesNoRulesAndIsReported) {
    mHost.setVisibleBufferLayers({{kVideo, 5000}});
    mController->composite(false, false, 10000);
    mRules.remove();

    std::string out;
    mController->reloadConfigThenDump(out);
    EXPECT_THAT(out, StartsWith("Reload Failed\nmLoadConfigSucceeded: 1\n"));
    EXPECT_THAT(out, HasSubstr("Target Layer\n==========\n"));

    // Every layer is now Nobody, and no target is registered any more.
    mController->composite(false, false, 10000);
    EXPECT_EQ(dumpedState(*mController), "Off 413");
}

TEST_F(PeltoDumpReloadTest, reloadRefusesPathsThatCouldStallOrExhaustIt) {
    mHost.setVisibleBufferLayers({{kVideo, 5000}});
    mController->composite(false, false, 10000);
    const std::string path = mRules.path();
    const std::string tooLarge = "is larger than " + std::to_string(kMaxRuleFileBytes) + " bytes";
    struct Case {
        const char* what;
        std::function<void()> make;
        std::string error;
    } cases[] = {
            // Opening a FIFO for reading would wait for a writer for good.
            {"a FIFO", [&] { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); }, "is not a regular file"},
            {"a directory", [&] { ASSERT_EQ(mkdir(path.c_str(), 0700), 0); },
             "is not a regular file"},
            // Read until memory runs out, if it were read at all.
            {"an endless device", [&] { ASSERT_EQ(symlink("/dev/zero", path.c_str()), 0); },
             "is not a regular file"},
            {"a file one byte over the cap",
             [&] {
                 mRules.write("{}");
                 ASSERT_EQ(truncate(path.c_str(), kMaxRuleFileBytes + 1), 0);
             },
             tooLarge},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        mRules.remove();
        rmdir(path.c_str());
        c.make();
        LogCapture log;
        std::string out;
        mController->reloadConfigThenDump(out);
        EXPECT_THAT(out, StartsWith("Reload Failed\n"));
        EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "PeltoConfig", path + " " + c.error))
                << ::testing::PrintToString(log.lines());
        // The layers are still there, now unclassified.
        mController->composite(false, false, 10000);
        EXPECT_EQ(dumpedState(*mController), "Off 413");
    }
    rmdir(path.c_str());

    // A file exactly at the cap is read (and then judged as JSON).
    mRules.write("{}");
    ASSERT_EQ(truncate(path.c_str(), kMaxRuleFileBytes), 0);
    LogCapture log;
    std::string out;
    mController->reloadConfigThenDump(out);
    EXPECT_FALSE(log.contains(ANDROID_LOG_ERROR, "PeltoConfig", path + " " + tooLarge));
}

// The layer sections of a dump: the text between the first two separators.
std::string layerSections(const std::string& dump) {
    const std::string separator = "==========\n";
    const size_t sections = dump.find(separator + "TargetLayer:\n");
    const size_t status = dump.find(separator + "Pelto State: ");
    if (sections == std::string::npos || status == std::string::npos) return "?";
    return dump.substr(sections + separator.size(), status - sections - separator.size());
}

// Dumps 50 times while another thread calls `change(i)` for i = 0, 1, ...;
// returns "" when every dump's layer sections, less whole "churn#" records,
// were one of `acceptable`, or what one showed instead.
std::string dumpWhile(PeltoController& controller, const std::function<void(int)>& change,
                      const std::vector<std::string>& acceptable) {
    std::atomic<bool> done{false};
    std::thread changer([&] {
        for (int i = 0; !done; ++i) change(i);
    });
    std::string failure;
    for (int round = 0; round < 50 && failure.empty(); ++round) {
        std::string out;
        controller.dump(out);
        std::string shown = layerSections(out);
        for (size_t at; (at = shown.find("\tchurn#")) != std::string::npos;) {
            const size_t nameEnd = shown.find('\n', at);
            if (nameEnd == std::string::npos || shown.compare(nameEnd + 1, 8, "\t\tarea: ") != 0) {
                failure = "a churned record cut short: " + shown.substr(at, 80);
                break;
            }
            shown.erase(at, shown.find('\n', nameEnd + 1) + 1 - at);
        }
        if (failure.empty() &&
            std::find(acceptable.begin(), acceptable.end(), shown) == acceptable.end()) {
            failure = "dump " + std::to_string(round) + " showed:\n" + shown;
        }
    }
    done = true;
    changer.join();
    return failure;
}

TEST_F(PeltoDumpReloadTest, dumpsOfManyLayersAreWholeAndOrderedWhileLayersComeAndGo) {
    // Far more records than one hold of the registry lock copies, of two
    // types interleaved, so every section spans several copies.
    constexpr int kLayers = 500;
    std::vector<int> layers(2 * kLayers);
    for (int i = 0; i < kLayers; ++i) {
        mController->registerLayer(&layers[2 * i], "subtitle.app#" + std::to_string(i));
        mController->registerLayer(&layers[2 * i + 1], "other.app#" + std::to_string(i));
    }
    std::string quiet;
    mController->dump(quiet);
    // Nobody holds both kinds in registration order, after other#0.
    std::string expectedNobody = "Nobody:\n\tother#0\n\t\tarea: 0 focused: 0\n";
    for (int i = 0; i < kLayers; ++i) {
        expectedNobody += "\tsubtitle.app#" + std::to_string(i) + "\n\t\tarea: 0 focused: 0\n";
        expectedNobody += "\tother.app#" + std::to_string(i) + "\n\t\tarea: 0 focused: 0\n";
    }
    const std::string sections = layerSections(quiet);
    EXPECT_EQ(sections.substr(sections.find("Nobody:")), expectedNobody);

    // Another thread registers and destroys layers of its own while dumps run:
    // every dump still shows each lasting layer once, in order, and a churned
    // layer whole or not at all.
    int churned[4] = {};
    EXPECT_EQ(dumpWhile(*mController,
                        [&](int i) {
                            int* layer = &churned[i % 4];
                            mController->registerLayer(layer, "churn#" + std::to_string(i));
                            mController->destroyLayer(layer);
                        },
                        {sections}),
              "");

    // Reloads that move the "subtitle.app" layers between two sections: every
    // dump shows them all under one rule file or all under the other.
    const std::string rulesB = R"({"target_layers": [ { "name": "video",
        "ignore_names": ["subtitle", "subtitle.app"] } ]})";
    mRules.write(rulesB);
    std::string reloaded;
    mController->reloadConfigThenDump(reloaded);
    std::string dumpB;
    mController->dump(dumpB);
    ASSERT_NE(layerSections(dumpB), sections);
    EXPECT_EQ(dumpWhile(*mController,
                        [&](int i) {
                            mRules.write(i % 2 ? kRules : rulesB);
                            std::string out;
                            mController->reloadConfigThenDump(out);
                        },
                        {sections, layerSections(dumpB)}),
              "");
}

} // namespace
} // namespace android
