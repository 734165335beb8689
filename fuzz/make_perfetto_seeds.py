#!/usr/bin/env python3
"""Writes the Perfetto fuzzer's seed inputs into fuzz/corpus/perfetto/.

Each seed is a setup byte (see PeltoPerfettoFuzzer.cpp: the read size and
whether the source fails at the end) and then a small trace, encoded here
field by field: ftrace print marks on two CPUs out of order, process and
thread names, FrameTimeline frames, a clock snapshot with a MONOTONIC packet,
an ftrace bundle on the global clock, compressed packets, and TrackEvent
slices and counters on an incremental clock with interned names. libFuzzer
grows the corpus from these.
"""
import os
import sys
import zlib

# The wire format writer the generated test captures use too.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools", "tests",
                                "captures"))
from protowire import lfield, varint, vfield  # noqa: E402


def print_event(t, tid, text):
    return lfield(2, vfield(1, t) + vfield(2, tid) + lfield(3, lfield(2, text + "\n")))


def bundle(cpu, events, extra=b""):
    return lfield(1, vfield(1, cpu) + extra + b"".join(events))


def trace(packets):
    return b"".join(lfield(1, p) for p in packets)


def frame(t, kind, body, clock=6):
    return vfield(8, t) + vfield(58, clock) + lfield(76, lfield(kind, body))


SF, APP, RT = 600, 7000, 7010
marks = []
for i in range(8):
    t = 5_000_000_000 + i * 8_333_333
    marks.append(print_event(t, SF, "C|%d|VSYNC-sf|%d" % (SF, i % 2)))
    marks.append(print_event(t + 1_000_000, RT, "B|%d|queueBuffer" % APP))
    marks.append(print_event(t + 1_100_000, RT, "E|%d" % APP))
    marks.append(print_event(t + 1_200_000, 640, "C|%d|BufferTX - app#0|%d" % (SF, i)))
names = lfield(2, lfield(1, vfield(1, SF) + lfield(3, "/system/bin/surfaceflinger"))
               + lfield(2, vfield(1, RT) + lfield(2, "RenderThread") + vfield(3, APP)))
frames = [
    frame(5_001_000_000, 2, vfield(1, 1) + vfield(2, 10) + vfield(3, SF)),
    frame(5_002_000_000, 4, vfield(1, 2) + vfield(4, APP) + lfield(5, "TX - app#0") + vfield(11, 1)),
    frame(5_009_000_000, 5, vfield(1, 2)),
    frame(5_009_333_333, 2, vfield(1, 3) + vfield(3, SF)),
]
snapshot = lfield(6, lfield(1, vfield(1, 3) + vfield(2, 100)) + lfield(1, vfield(1, 6) + vfield(2, 1100)))
# The Perfetto SDK's way: sequence 9, state cleared, clock 64 incremental.
SEQ = vfield(10, 9)
track_events = [
    SEQ + vfield(13, 1) + lfield(59, vfield(58, 64))
    + lfield(6, lfield(1, vfield(1, 6) + vfield(2, 1_000_000))
             + lfield(1, vfield(1, 64) + vfield(2, 500_000) + vfield(3, 1) + vfield(4, 2)))
    + lfield(12, lfield(2, vfield(1, 1) + lfield(2, "queueBuffer"))),
    lfield(60, vfield(1, 100) + lfield(3, vfield(1, SF) + lfield(6, "surfaceflinger"))),
    lfield(60, vfield(1, 101) + vfield(5, 100) + lfield(4, vfield(1, SF) + vfield(2, 610))),
    lfield(60, vfield(1, 102) + vfield(5, 100) + lfield(13, "VSYNC-sf") + lfield(8, b"")),
] + [SEQ + vfield(8, 4_166_666) + lfield(11, vfield(9, 4) + vfield(11, 102) + vfield(30, i % 2))
     for i in range(8)] + [
    SEQ + vfield(8, 100) + vfield(13, 2) + lfield(11, vfield(9, 1) + vfield(10, 1) + vfield(11, 101)),
    SEQ + vfield(8, 100) + lfield(11, vfield(9, 4) + vfield(11, 102)
                                  + varint(44 << 3 | 1) + bytes(8)),
]
seeds = {
    "track_events.pftrace": (3, trace(track_events)),
    "marks_two_cpus.pftrace": (0x3f, trace([names, bundle(1, marks[16:]), bundle(0, marks[:16])])),
    "frametimeline.pftrace": (7, trace(frames)),
    "clocks.pftrace": (1, trace([snapshot, frame(600, 2, vfield(3, SF), clock=3),
                                 bundle(2, [print_event(50_000, 1, "C|1|x|1")],
                                        vfield(5, 2) + vfield(6, 40_000) + vfield(7, 90_000))])),
    "compressed.pftrace": (16, trace([lfield(50, zlib.compress(trace([bundle(0, marks)]), 6))])),
    "read_error.pftrace": (0x80 | 5, trace(frames[:2])),
}
out = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "perfetto")
os.makedirs(out, exist_ok=True)
for name, (setup, data) in seeds.items():
    with open(os.path.join(out, name), "wb") as f:
        f.write(bytes([setup]) + data)
