#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
using ::testing::HasSubstr;

// The dump's four layer sections, from "TargetLayer:" to the status block.
std::string layerSections(const PeltoController& controller) {
    std::string out;
    controller.dump(out);
    const size_t from = out.find("TargetLayer:\n");
    const size_t to = out.find("==========\nPelto State");
    return out.substr(from, to - from);
}

TEST(PeltoLayerRegistryTest, namesAreLookedUpUpToTheirLastHashAndClassifiedTargetFirst) {
    ScopedRuleFile rules(R"({
      "target_layers": [ { "name": "a#b", "ignore_names": ["video"] }, { "name": "" },
                         { "name": "video" } ],
      "general_rule": { "on_when_has_other_layer": true, "use_adaptive_timeout": true },
      "exception_rule": [ { "name": "video", "always_true": true },
                          { "name": "popup", "always_true": true } ]
    })");
    FakeCompositor host;
    auto controller = host.create(/*useList=*/true);
    int layers[6] = {};
    controller->registerLayer(&layers[0], "a#b#c");      // key "a#b": target 0
    controller->registerLayer(&layers[1], "#7");         // key "": target 1
    controller->registerLayer(&layers[2], "video#0");    // target beats ignore and exception
    controller->registerLayer(&layers[3], "popup");      // no '#': looked up whole
    controller->registerLayer(&layers[4], "a#b");        // key "a": nobody
    controller->registerLayer(&layers[5], "popup#1#2");  // key "popup#1": nobody
    EXPECT_EQ(layerSections(*controller),
              "TargetLayer:\n"
              "\ta#b#c\n\t\tid: 0\n\t\tarea: 0 focused: 0\n"
              "\t#7\n\t\tid: 1\n\t\tarea: 0 focused: 0\n"
              "\tvideo#0\n\t\tid: 2\n\t\tarea: 0 focused: 0\n"
              "TargetIgnoreLayer:\n"
              "ExceptionLayer:\n"
              "\tpopup\n\t\tarea: 0 focused: 0\n"
              "Nobody:\n"
              "\ta#b\n\t\tarea: 0 focused: 0\n"
              "\tpopup#1#2\n\t\tarea: 0 focused: 0\n");
}

TEST(PeltoLayerRegistryTest, duplicatesCountAndOneDestroyRemovesThemAll) {
    ScopedRuleFile rules(R"({"target_layers": [{"name": "video"}],
        "general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": true}})");
    LogCapture log;
    FakeCompositor host;
    auto controller = host.create(/*useList=*/true);
    int video = 0;
    int stranger = 0;

    controller->registerLayer(nullptr, "video#0");
    EXPECT_EQ(log.count("PeltoController", "registerLayer(), layerPtr == null"), 1u);

    controller->registerLayer(&video, "video#0");
    controller->registerLayer(&video, "video#1");
    host.setVisibleBufferLayers({{&video, 10}});
    controller->composite(false, false, 100);
    EXPECT_EQ(dumpedState(*controller), "On 551");
    // The traversal reaches the first record of a pointer; the flag goes on both.
    EXPECT_EQ(layerSections(*controller),
              "TargetLayer:\n"
              "\tvideo#0\n\t\tid: 0\n\t\tcurrent active\n\t\tarea: 10 focused: 0\n"
              "\tvideo#1\n\t\tid: 0\n\t\tcurrent active\n\t\tarea: 0 focused: 0\n"
              "TargetIgnoreLayer:\nExceptionLayer:\nNobody:\n");

    const size_t linesBefore = log.lines().size();
    controller->destroyLayer(&stranger);  // unknown: nothing happens, nothing is logged
    controller->destroyLayer(&video);     // both records go, and the count with them
    controller->destroyLayer(&video);
    EXPECT_EQ(log.lines().size(), linesBefore);
    EXPECT_EQ(layerSections(*controller),
              "TargetLayer:\nTargetIgnoreLayer:\nExceptionLayer:\nNobody:\n");
    controller->composite(false, false, 100);
    EXPECT_EQ(dumpedState(*controller), "Off 413");
}

} // namespace
} // namespace android
