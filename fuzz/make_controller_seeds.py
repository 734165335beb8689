#!/usr/bin/env python3
"""Writes the controller fuzzer's seed inputs into fuzz/corpus/controller/.

The input format is described in PeltoControllerFuzzer.cpp: a setup byte, a
construction byte, the rule file, then "\\n%%\\n", the composing script, "\\n%%\\n" and the second
thread's script; each script is a list of calls, an opcode byte and its
argument bytes. Run again after changing the format; libFuzzer grows the
corpus from these.
"""
import os

(SET_TRANSACTION_STATE, SET_BUFFER_COUNT, SET_HAS_PENDING_BUFFER, SET_HAS_OTHER_UI,
 SET_PREVIOUS_PRESENT_FENCE, SET_SF_IN_PROGRESS, ON_ACTIVE_MODE_UPDATED, IS_Q2Q_FULL, IS_ON,
 COMMIT, DUMP, RELOAD, ADVANCE_CLOCK, SET_VSYNC_PERIOD, QUEUE_FENCE, CALCULATE_TIMEOUT,
 TIMEOUT_CALLBACK, REGISTER, DESTROY, COMPOSITE, SET_VISIBLE, SET_TARGET_LAYER,
 SET_PELTO_ENABLE) = range(23)

LIST, DEBUG, NO_RULE_FILE = 1, 2, 4
# Setup bits 3-5: the timer call that fails; bits 6-7: how many times, less one.
(TIMERFD_CREATE, EPOLL_CREATE, PIPE2, EPOLL_CTL, TIMERFD_SETTIME, EPOLL_WAIT,
 TIMER_READ) = range(1, 8)


def timer_fault(call, times):
    return call << 3 | (times - 1) << 6


REUSE, NEW_CONTROLLER = 0, 0xf0  # the construction byte; | faults on a new one
SEPARATOR = b"\n%%\n"
NULL_SLOT = 7
FULL_SCREEN = 5  # index of the screen-sized area

# Names by index: the fixed ones, then quoted strings of the rule file.
VIDEO, VIDEO7, GAME, SUBTITLE, KEYBOARD, OTHER, VIDEO_PLAIN, GAME_DOUBLE_HASH = range(8)

RULES_A = b"""{"target_layers": [{"name": "video", "ignore_names": ["subtitle"]}, {"name": "game"}],
 "general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": true},
 "exception_rule": [
   {"layer_screen_size_ratio": {"condition": "1 bigger", "value1": 30}},
   {"name": "keyboard", "focus": true, "layer_screen_size_ratio":
     {"condition": "2 in_range", "value1": 10, "value2": 50}}]}"""
RULES_B = b"""{"target_layers": [{"name": "game", "ignore_names": ["video"]}, {"name": "game#1"}],
 "general_rule": {"on_when_has_other_layer": false, "use_adaptive_timeout": false},
 "exception_rule": [{"focus": false}, {"name": "subtitle", "always_true": true},
                    {"name": "keyboard"}]}"""
RULES_NO_GENERAL = b"""{"target_layers": [{"name": "video"}, {"name": "game", "ignore_names": ["other"]}]}"""
RULES_BROKEN = b"""{"target_layers": [{"name": "video"}"""


def register(slot, name, suffix=None):
    return [REGISTER, slot, name | (0 if suffix is None else 0x10 | (suffix << 5))]


def visible(*layers):
    """layers: (slot, area index, focused); slots may repeat."""
    out = [SET_VISIBLE, len(layers)]
    for slot, area, focused in layers:
        out.append(slot | (area << 3) | (0x80 if focused else 0))
    return out


def composite(force_off=False, screen=0):
    return [COMPOSITE, (1 if force_off else 0) | 2 | (screen << 2)]


def transaction(slot, timestamp=1, null_handle=False, fence=1):
    element = slot | (0x08 if null_handle else 0) | 0x10 | (fence << 6)
    return [SET_TRANSACTION_STATE, 1, element, timestamp]


def frames(slot, n, step=4):
    out = []
    for _ in range(n):
        out += [ADVANCE_CLOCK, step] + transaction(slot)
    return out


def seed(setup, rules, main, second=(), construction=REUSE):
    return bytes([setup, construction]) + rules + SEPARATOR + bytes(main) + SEPARATOR + bytes(second)


SEEDS = {
    "list_target_on_then_destroyed": seed(LIST, RULES_A,
        register(0, VIDEO) + visible((0, FULL_SCREEN, False)) + composite()
        + frames(0, 6) + [IS_Q2Q_FULL, COMMIT, DUMP, DESTROY, 0] + composite(),
        frames(0, 8) + [IS_Q2Q_FULL, RELOAD, SET_HAS_OTHER_UI, 1]),
    "list_other_layers_and_rules": seed(LIST, RULES_A,
        register(0, VIDEO) + register(1, OTHER) + register(2, KEYBOARD)
        + register(3, SUBTITLE) + register(4, GAME)
        + visible((0, FULL_SCREEN, False), (1, 3, False), (2, 4, True), (3, 2, False))
        + composite() + [RELOAD] + composite(screen=1) + composite(screen=2),
        [RELOAD, DUMP, RELOAD]),
    "list_no_general_rule_repeats": seed(LIST | DEBUG, RULES_NO_GENERAL,
        register(0, VIDEO) + register(1, GAME, 3) + register(2, OTHER, 1)
        + visible((0, 2, False), (0, 2, False), (5, 1, False), (2, 1, True), (NULL_SLOT, 0, False))
        + composite() + visible((1, 2, False), (2, 1, False)) + composite()
        + [DESTROY, 2] + composite(),
        [SET_BUFFER_COUNT, 0, 4, SET_BUFFER_COUNT, 1, 0xff, 0x80, 0, 0, 0] + frames(0, 3)),
    "list_same_pointer_twice": seed(LIST, RULES_B,
        register(0, OTHER) + register(0, GAME) + register(1, GAME_DOUBLE_HASH)
        + register(NULL_SLOT, GAME) + visible((0, 8, True), (1, 9, False), (6, 15, False))
        + [0, 0, 0x80, 0x7f] + composite(screen=3) + [0xff, 0xff, 0xff, 0xff]
        + [DESTROY, 0] + composite() + [DESTROY, 6, DESTROY, NULL_SLOT] + composite()),
    "list_broken_and_missing_rules": seed(LIST, RULES_BROKEN,
        register(0, VIDEO) + composite() + [RELOAD] + composite(force_off=True),
        [RELOAD, RELOAD, QUEUE_FENCE, 2, QUEUE_FENCE, 3], construction=NEW_CONTROLLER | 0x0f),
    "list_timer_cannot_build_its_loop": seed(LIST | timer_fault(PIPE2, 4), RULES_A,
        register(0, VIDEO) + visible((0, FULL_SCREEN, False)) + composite() + frames(0, 3),
        [RELOAD, DUMP], construction=NEW_CONTROLLER),
    "api_timer_wait_fails": seed(timer_fault(EPOLL_WAIT, 2), b"",
        [SET_TARGET_LAYER, 0] + visible((0, FULL_SCREEN, True)) + [SET_PELTO_ENABLE, 1]
        + composite() + frames(0, 2), construction=NEW_CONTROLLER | 0x05),
    "list_no_rule_file": seed(LIST | NO_RULE_FILE, b"",
        register(0, VIDEO) + visible((0, FULL_SCREEN, False)) + composite() + [RELOAD]),
    "api_target_enable": seed(DEBUG, b"",
        [SET_TARGET_LAYER, 0] + visible((0, FULL_SCREEN, True)) + [SET_PELTO_ENABLE, 1]
        + composite() + frames(0, 3) + [SET_HAS_PENDING_BUFFER, 0, COMMIT]
        + [SET_PELTO_ENABLE, 0] + composite() + [SET_TARGET_LAYER, NULL_SLOT] + composite()
        + [RELOAD, DUMP],
        frames(0, 6) + [SET_PREVIOUS_PRESENT_FENCE, 3, SET_SF_IN_PROGRESS, 1, CALCULATE_TIMEOUT,
                        TIMEOUT_CALLBACK]),
    "vsync_periods_and_timestamps": seed(LIST | DEBUG, RULES_A,
        register(0, VIDEO) + visible((0, FULL_SCREEN, False)) + composite()
        + sum(([SET_VSYNC_PERIOD, i, ADVANCE_CLOCK, i % 9]
               + transaction(0, timestamp=i % 10) + [SET_BUFFER_COUNT, 0, i % 9, IS_Q2Q_FULL]
               for i in range(11)), [])
        + [SET_VSYNC_PERIOD, 0xff] + [1, 0, 0, 0, 0, 0, 0, 0x80] + frames(0, 1)
        + [ON_ACTIVE_MODE_UPDATED, CALCULATE_TIMEOUT, TIMEOUT_CALLBACK,
           SET_PREVIOUS_PRESENT_FENCE, 2, SET_SF_IN_PROGRESS, 1, SET_HAS_OTHER_UI, 1, DUMP],
        [SET_VSYNC_PERIOD, 4] + frames(0, 4) + [SET_VSYNC_PERIOD, 10, ON_ACTIVE_MODE_UPDATED]),
}


def main():
    out_dir = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "controller")
    os.makedirs(out_dir, exist_ok=True)
    for name in os.listdir(out_dir):
        os.remove(os.path.join(out_dir, name))
    for name, data in SEEDS.items():
        with open(os.path.join(out_dir, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
