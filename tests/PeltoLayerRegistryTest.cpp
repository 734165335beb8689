#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "controller/PeltoLayerRegistry.h"
#include "support/LogCapture.h"

namespace android {
namespace {

using ::testing::ElementsAre;

// Rules parsed from text, whatever the rule file on this machine says.
std::unique_ptr<PeltoConfig> rulesFrom(const std::string& json) {
    test::LogCapture quiet; // the constructor's own load of the fixed path
    PeltoConfig fixedPath(PeltoConfig::kDefaultPath);
    std::unique_ptr<PeltoConfig> rules = PeltoConfig::makeReloadOf(fixedPath);
    std::istringstream stream(json);
    EXPECT_EQ(rules->loadConfig(stream), PeltoConfig::kLoadOk);
    return rules;
}

// Each record as "name:type", with "*" for the active ones, in list order.
std::vector<std::string> records(const PeltoLayerRegistry& registry) {
    std::vector<std::string> out;
    for (const PeltoLayer& r : registry.records()) {
        out.push_back(r.name + ":" + std::to_string(r.type) + (r.isActiveTarget ? "*" : ""));
    }
    return out;
}

const void* layer(uintptr_t n) {
    return reinterpret_cast<const void*>(n * 0x100);
}

TEST(PeltoLayerRegistryTest, classifiesByTheNameBeforeTheLastHashTargetFirst) {
    const auto rules = rulesFrom(R"({
      "target_layers": [ { "name": "a#b", "ignore_names": ["video"] }, { "name": "" },
                         { "name": "video" } ],
      "exception_rule": [ { "name": "video", "always_true": true },
                          { "name": "popup", "always_true": true } ]})");
    PeltoLayerRegistry registry;
    registry.add(PeltoLayerRegistry::prepare(layer(1), "a#b#c"), *rules);     // key "a#b"
    registry.add(PeltoLayerRegistry::prepare(layer(2), "#7"), *rules);        // key ""
    registry.add(PeltoLayerRegistry::prepare(layer(3), "video#0"), *rules);   // target first
    registry.add(PeltoLayerRegistry::prepare(layer(4), "popup"), *rules);     // looked up whole
    registry.add(PeltoLayerRegistry::prepare(layer(5), "a#b"), *rules);       // key "a"
    registry.add(PeltoLayerRegistry::prepare(layer(6), "popup#1#2"), *rules); // key "popup#1"
    EXPECT_THAT(records(registry),
                ElementsAre("a#b#c:1", "#7:1", "video#0:1", "popup:3", "a#b:0", "popup#1#2:0"));
    EXPECT_EQ(registry.targetCount(), 3);
    EXPECT_EQ(registry.find(layer(3))->targetInfo->id, 2);
    EXPECT_NE(registry.find(layer(4))->exceptionRule, nullptr);
    EXPECT_EQ(registry.find(layer(7)), nullptr);
}

TEST(PeltoLayerRegistryTest, duplicatesActiveTargetsAndRemoval) {
    const auto rules = rulesFrom(R"({"target_layers": [{"name": "video"}, {"name": "game"}]})");
    PeltoLayerRegistry registry;
    registry.add(PeltoLayerRegistry::prepare(layer(1), "video#0"), *rules);
    registry.add(PeltoLayerRegistry::prepare(layer(2), "game#0"), *rules);
    registry.add(PeltoLayerRegistry::prepare(layer(1), "video#1"), *rules);
    EXPECT_EQ(registry.targetCount(), 3);
    EXPECT_EQ(registry.find(layer(1))->name, "video#0"); // the first record is found

    // Every target record of the pointer is flagged; a later duplicate is not.
    registry.setActiveTarget(layer(1));
    registry.add(PeltoLayerRegistry::prepare(layer(1), "video#2"), *rules);
    EXPECT_THAT(records(registry),
                ElementsAre("video#0:1*", "game#0:1", "video#1:1*", "video#2:1"));
    EXPECT_TRUE(registry.isActiveTarget(layer(1)));
    EXPECT_FALSE(registry.isActiveTarget(layer(2)));
    EXPECT_FALSE(registry.isActiveTarget(nullptr));

    registry.setActiveTarget(layer(2));
    EXPECT_THAT(records(registry), ElementsAre("video#0:1", "game#0:1*", "video#1:1", "video#2:1"));

    // One removal takes every record of a pointer, active or not; an unknown
    // pointer changes nothing.
    test::LogCapture log;
    registry.remove(layer(9));
    registry.remove(layer(1));
    EXPECT_THAT(records(registry), ElementsAre("game#0:1*"));
    EXPECT_EQ(registry.targetCount(), 1);
    registry.remove(layer(2));
    EXPECT_FALSE(registry.isActiveTarget(layer(2)));
    EXPECT_EQ(registry.targetCount(), 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST(PeltoLayerRegistryTest, reclassificationKeepsOrderAndStartsEveryRecordAfresh) {
    const auto before = rulesFrom(R"({"target_layers": [{"name": "video"}]})");
    const auto after =
            rulesFrom(R"({"target_layers": [{"name": "game", "ignore_names": ["video"]}]})");
    for (const bool changedMeanwhile : {false, true}) {
        SCOPED_TRACE(changedMeanwhile ? "layers came and went meanwhile" : "unchanged");
        PeltoLayerRegistry registry;
        registry.add(PeltoLayerRegistry::prepare(layer(1), "video#0"), *before);
        registry.add(PeltoLayerRegistry::prepare(layer(2), "game#0"), *before);
        registry.setActiveTarget(layer(1));
        registry.find(layer(1))->area = 50;

        PeltoLayerRegistry::Reclassification reclassification = registry.snapshot();
        PeltoLayerRegistry::classify(reclassification, *after);
        if (changedMeanwhile) {
            // A destroy and a registration between the snapshot and the swap:
            // as many records as were classified, but not the same ones.
            registry.remove(layer(1));
            registry.add(PeltoLayerRegistry::prepare(layer(3), "game#1"), *before);
        }
        registry.apply(std::move(reclassification), *after);

        if (changedMeanwhile) {
            EXPECT_THAT(records(registry), ElementsAre("game#0:1", "game#1:1"));
            EXPECT_EQ(registry.targetCount(), 2);
            continue;
        }
        EXPECT_THAT(records(registry), ElementsAre("video#0:2", "game#0:1"));
        EXPECT_EQ(registry.find(layer(1))->targetIgnoreInfo->id, 0);
        EXPECT_EQ(registry.find(layer(1))->area, 0);
        EXPECT_EQ(registry.targetCount(), 1);
        EXPECT_FALSE(registry.isActiveTarget(layer(1)));
        registry.setActiveTarget(layer(2));
        EXPECT_THAT(records(registry), ElementsAre("video#0:2", "game#0:1*"));
    }
}

} // namespace
} // namespace android
