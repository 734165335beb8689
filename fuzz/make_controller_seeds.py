#!/usr/bin/env python3
"""Writes the controller fuzzer's seed inputs into fuzz/corpus/controller/.

The input format is described at the top of PeltoControllerFuzzer.cpp: a setup
byte, then calls, each an opcode byte and its argument bytes. Run again after
changing the format; libFuzzer grows the corpus from these.
"""
import os

(REGISTER, DESTROY, COMPOSITE, SET_VISIBLE, SET_VSYNC_PERIOD, ADVANCE_CLOCK,
 SET_TRANSACTION_STATE, IS_ON, IS_Q2Q_FULL, COMMIT, SET_HAS_PENDING_BUFFER,
 SET_HAS_OTHER_UI, SET_PREVIOUS_PRESENT_FENCE, SET_SF_IN_PROGRESS, SET_TARGET_LAYER,
 SET_PELTO_ENABLE, ON_ACTIVE_MODE_UPDATED, DUMP, RELOAD, CALCULATE_TIMEOUT,
 TIMEOUT_CALLBACK) = range(21)

# Names by index, as in the fuzzer.
VIDEO, VIDEO7, GAME, SUBTITLE, KEYBOARD, OTHER, VIDEO_PLAIN, GAME_DOUBLE_HASH = range(8)
NULL_SLOT = 7
RULES_A, RULES_B, RULES_BROKEN, RULES_MISSING = range(4)
FULL_SCREEN = 5  # index of the screen-sized area


def setup(use_list, rules):
    return [(1 if use_list else 0) | (rules << 1)]


def register(slot, name):
    return [REGISTER, slot | (name << 3)]


def visible(*layers):
    """layers: (slot, area index, focused)."""
    mask = 0
    args = []
    for slot, area, focused in sorted(layers):
        mask |= 1 << slot
        args.append(area | (0x10 if focused else 0))
    return [SET_VISIBLE, mask] + args


def composite(force_off=False, screen=0):
    return [COMPOSITE, (1 if force_off else 0) | 2 | (screen << 2)]


def transaction(slot, timestamp=1, buffer_count=1, null_handle=False):
    element = slot | (0x08 if null_handle else 0) | 0x10 | (buffer_count << 5)
    return [SET_TRANSACTION_STATE, 1, element, timestamp]


def frames(slot, n, step=4):
    out = []
    for _ in range(n):
        out += [ADVANCE_CLOCK, step] + transaction(slot)
    return out


SEEDS = {
    "list_target_on_then_destroyed": setup(True, RULES_A)
        + register(0, VIDEO) + visible((0, FULL_SCREEN, False)) + composite()
        + frames(0, 6) + [IS_Q2Q_FULL, COMMIT, DUMP] + [DESTROY, 0] + composite(),
    "list_other_layers_and_rules": setup(True, RULES_A)
        + register(0, VIDEO) + register(1, OTHER) + register(2, KEYBOARD)
        + register(3, SUBTITLE) + register(4, GAME)
        + visible((0, FULL_SCREEN, False), (1, 3, False), (2, 4, True), (3, 2, False))
        + composite() + [RELOAD, RULES_B] + composite() + [RELOAD, RULES_BROKEN]
        + composite() + [RELOAD, RULES_MISSING] + composite() + [RELOAD, RULES_A]
        + composite(screen=1),
    "list_same_pointer_twice": setup(True, RULES_B)
        + register(0, OTHER) + register(0, GAME) + register(1, GAME_DOUBLE_HASH)
        + register(NULL_SLOT, GAME) + visible((0, 8, True), (1, 9, False), (6, 15, False))
        + [0, 0, 0x80, 0x7f] + composite(screen=3) + [0xff, 0xff, 0xff, 0xff]
        + [DESTROY, 0] + composite() + [DESTROY, 6, DESTROY, NULL_SLOT] + composite(),
    "api_target_enable": setup(False, RULES_A)
        + [SET_TARGET_LAYER, 0] + visible((0, FULL_SCREEN, True)) + [SET_PELTO_ENABLE, 1]
        + composite() + frames(0, 3) + [SET_HAS_PENDING_BUFFER, 0, COMMIT]
        + [SET_PELTO_ENABLE, 0] + composite() + [SET_TARGET_LAYER, NULL_SLOT] + composite()
        + [RELOAD, RULES_B, DUMP],
    "vsync_periods_and_timestamps": setup(True, RULES_A)
        + register(0, VIDEO) + visible((0, FULL_SCREEN, False)) + composite()
        + sum(([SET_VSYNC_PERIOD, i, ADVANCE_CLOCK, i % 9]
               + transaction(0, timestamp=i % 9, buffer_count=i % 4) + [IS_Q2Q_FULL]
               for i in range(11)), [])
        + [SET_VSYNC_PERIOD, 0xff] + [1, 0, 0, 0, 0, 0, 0, 0x80] + frames(0, 1)
        + [ON_ACTIVE_MODE_UPDATED, CALCULATE_TIMEOUT, TIMEOUT_CALLBACK,
           SET_PREVIOUS_PRESENT_FENCE, 2, SET_SF_IN_PROGRESS, 1, SET_HAS_OTHER_UI, 1, DUMP],
    "forced_off_and_empty": setup(True, RULES_BROKEN)
        + composite(force_off=True) + register(0, VIDEO) + composite()
        + [RELOAD, RULES_A] + composite() + composite(force_off=True, screen=1),
}


def main():
    out_dir = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "controller")
    os.makedirs(out_dir, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(out_dir, name), "wb") as f:
            f.write(bytes(data))


if __name__ == "__main__":
    main()
