#include "support/LayerScene.h"

#include <cstdint>

#include <log/log.h>

namespace android::test {
namespace {

// Follows config/examples/pelto_config.json: always-on, so the rules say when
// the mode must leave On, and nothing on this screen matches one.
constexpr const char* kRuleFile = R"json({
  "target_layers": [
    {"name": "SurfaceView[com.example.player/com.example.player.PlayerActivity](BLAST)",
     "ignore_names": ["com.example.player/com.example.player.PlayerActivity", "StatusBar"]},
    {"name": "SurfaceView[com.example.game/com.example.game.MainActivity](BLAST)",
     "ignore_names": ["com.example.game/com.example.game.MainActivity"]}
  ],
  "general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": true},
  "exception_rule": [
    {"layer_screen_size_ratio": {"condition": "1 bigger", "value1": 30}},
    {"name": "InputMethod", "focus": true,
     "layer_screen_size_ratio": {"condition": "2 in_range", "value1": 10, "value2": 50}},
    {"name": "com.example.chat/com.example.chat.BubbleActivity", "focus": true},
    {"name": "com.example.chat/com.example.chat.BubbleActivity",
     "layer_screen_size_ratio": {"condition": "1 bigger", "value1": 20}},
    {"name": "VolumeDialog", "always_true": true}
  ]
})json";

constexpr float kScreen = static_cast<float>(LayerScene::kScreenArea);

const void* layerPtrAt(size_t index) {
    // Only compared and hashed, never dereferenced.
    return reinterpret_cast<const void*>(uintptr_t{0x7a000000} + index * 0x400);
}

std::string withSequence(const std::string& name, size_t sequence) {
    return name + "#" + std::to_string(sequence);
}

} // namespace

LayerScene makeLayerScene(size_t registered, size_t visible) {
    LOG_ALWAYS_FATAL_IF(visible < 8 || registered < visible, "bad scene %zu/%zu", registered,
                        visible);
    LayerScene scene;
    scene.ruleFile = kRuleFile;

    // The visible layers' names and places, in traversal order.
    struct Shown {
        std::string name;
        float area;
        bool focused;
        bool target;
    };
    std::vector<Shown> shown;
    shown.push_back({"SurfaceView[com.example.player/com.example.player.PlayerActivity](BLAST)",
                     kScreen, false, true});
    shown.push_back({"com.example.player/com.example.player.PlayerActivity", kScreen, true, false});
    shown.push_back({"StatusBar", kScreen * 0.03f, false, false});
    if (visible >= 16) {
        shown.push_back({"SurfaceView[com.example.game/com.example.game.MainActivity](BLAST)",
                         kScreen * 0.2f, false, true});
        shown.push_back(
                {"com.example.game/com.example.game.MainActivity", kScreen * 0.2f, false, false});
    }
    const size_t exceptions = visible / 8;
    for (size_t i = 0; i < exceptions; ++i) {
        if (i % 2 == 0) {
            shown.push_back({"InputMethod", kScreen * 0.25f, false, false});
        } else {
            shown.push_back({"com.example.chat/com.example.chat.BubbleActivity", kScreen * 0.02f,
                             false, false});
        }
    }
    for (size_t i = 0; shown.size() < visible; ++i) {
        const std::string app = "com.example.overlay" + std::to_string(i);
        shown.push_back({app + "/" + app + ".FloatingActivity", kScreen * 0.02f, false, false});
    }

    // Visible layer j is registered at position j * registered / visible.
    size_t nextShown = 0;
    size_t hidden = 0;
    for (size_t i = 0; i < registered; ++i) {
        const void* layerPtr = layerPtrAt(i);
        if (nextShown < visible && i == nextShown * registered / visible) {
            const Shown& s = shown[nextShown++];
            scene.registrations.push_back({layerPtr, withSequence(s.name, i)});
            scene.visible.push_back({layerPtr, s.area, s.focused});
            if (s.target && scene.activeTarget == nullptr) {
                scene.activeTarget = layerPtr;
            } else if (!s.target) {
                scene.visibleNonTargets.push_back(layerPtr);
            }
        } else {
            const std::string app = "com.example.app" + std::to_string(hidden++);
            const std::string name = app + "/" + app + ".MainActivity";
            scene.registrations.push_back({layerPtr, withSequence(name, i)});
        }
    }
    return scene;
}

} // namespace android::test
