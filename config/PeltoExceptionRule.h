#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace android {

// Facts about one visible layer that exception rules are matched against.
struct PeltoExceptionRuleInput {
    // Layer area / screen area * 100, in single precision; 0 when the screen area is 0.
    float layerScreenSizeRatio = 0.0f;
    bool focus = false;
};

// Condition types of a numeric condition, as written in the rule file.
enum PeltoConditionType : int32_t {
    kConditionSmaller = 0,
    kConditionBigger = 1,
    kConditionInRange = 2,
    kConditionEqual = 3,
};

// A numeric condition. `func` is built once at load time and holds its own
// copies of the bounds, so an entry stays correct when it is copied.
template <typename T>
struct PeltoExceptionRuleNumeric {
    int32_t conditionType = kConditionSmaller;
    T value1{};
    std::optional<T> value2;
    std::function<bool(T)> func;
};

// A boolean condition: matches when the fact equals `value`.
struct PeltoExceptionRuleBool {
    bool value = false;
    std::function<bool(bool)> func;
};

// Builds a condition with its predicate. The predicate holds copies of the
// constants, so it stays correct wherever the record is copied. A numeric
// condition of an unknown type, or "in_range" without value2, never matches.
// The numeric builder exists for float.
template <typename T>
PeltoExceptionRuleNumeric<T> makeNumericCondition(int32_t conditionType, T value1,
                                                  std::optional<T> value2);
PeltoExceptionRuleBool makeBoolCondition(bool value);

// One element of the rule file's "exception_rule" array.
struct PeltoExceptionRuleEntry {
    std::optional<PeltoExceptionRuleNumeric<float>> ruleLayerScreenSizeRatio;
    std::optional<PeltoExceptionRuleBool> ruleFocus;
    bool alwaysTrue = false;
};

// The entries for one layer name (or the general rule), in rule-file order.
struct PeltoExceptionRule {
    std::vector<PeltoExceptionRuleEntry> entries;
};

} // namespace android
