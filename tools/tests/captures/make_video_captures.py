#!/usr/bin/env python3
"""Writes the generated test captures next to this script.

Not recordings: each event is laid out here the way a device writes it
(atrace text as `adb shell atrace` prints it; a Perfetto trace as
`perfetto ... gfx view` writes ftrace print events, see README.md), with the
figures chosen so a reader can check them:

  video_120hz_atrace.txt.gz, video_120hz.perfetto-trace
      the same 10 s: a 23.976 fps video in a SurfaceView (fed by the app's
      MediaCodec_loop thread) on a 120 Hz panel, the activity's UI (fed by its
      RenderThread) animating three times, SystemUI's status bar (3 buffers),
      vendor and framework counters in the compositor, HW_VSYNC_<id> only in
      six resync windows, VSYNC-sf and VSYNC-app only on vsyncs with work,
      sched and binder noise.
  refresh_switch_atrace.txt
      4 s of a 30 fps game whose panel goes from 60 to 120 Hz at 2.0 s:
      resync windows at both rates and the compositor's ActiveModeFPS counter.

Only the standard library; run it again after changing it (the output is the
same on every run).
"""
import gzip
import os
import random

from protowire import lfield, vfield

HERE = os.path.dirname(os.path.abspath(__file__))
DISPLAY = 4619827259835644672
SF, SF_BINDER, SF_HWC = 612, 701, 655
APP, APP_RT, APP_CODEC = 8300, 8342, 8371
SYSUI, SYSUI_RT = 1530, 1587
MS = 1_000_000
NAMES = {SF: "surfaceflinger", SF_BINDER: "binder:612_3", SF_HWC: "HwBinder:612_2",
         APP: "example.player", APP_RT: "RenderThread", APP_CODEC: "MediaCodec_loop",
         SYSUI: "ndroid.systemui", SYSUI_RT: "RenderThread"}
TGID = {SF: SF, SF_BINDER: SF, SF_HWC: SF, APP: APP, APP_RT: APP, APP_CODEC: APP,
        SYSUI: SYSUI, SYSUI_RT: SYSUI}
CMDLINE = {SF: "/system/bin/surfaceflinger", APP: "com.example.player",
           SYSUI: "com.android.systemui"}
VIDEO_LAYER = "SurfaceView[com.example.player/com.example.player.PlayerActivity](BLAST)#1077"
UI_LAYER = "com.example.player/com.example.player.PlayerActivity#1073"
STATUS_LAYER = "StatusBar#74"


class Events:
    """Events as (time ns, kind, tid, fields); kind is 'mark', 'switch', 'wakeup' or 'binder'."""

    def __init__(self, seed):
        self.items = []
        self.frames = []  # SurfaceFlinger's FrameTimeline: (start, end, display token, layer, pid)
        self.rng = random.Random(seed)
        self.toggles = {}

    def mark(self, t, tid, text):
        self.items.append((t, "mark", tid, text))

    def begin_end(self, t, tid, name, length):
        self.mark(t, tid, "B|%d|%s" % (TGID[tid], name))
        self.mark(t + length, tid, "E|%d" % TGID[tid])

    def counter(self, t, tid, name, value):
        self.mark(t, tid, "C|%d|%s|%d" % (TGID[tid], name, value))

    def toggle(self, t, tid, name):
        value = self.toggles.get(name, 0) ^ 1
        self.toggles[name] = value
        self.counter(t, tid, name, value)

    def noise(self, t, tid):
        """A thread woken and switched in, and now and then a binder call to the compositor."""
        self.items.append((t - 30_000, "wakeup", tid, None))
        self.items.append((t - 10_000, "switch", tid, None))
        if self.rng.random() < 0.3:
            self.items.append((t + 50_000, "binder", tid, None))

    def sorted(self):
        return sorted(self.items, key=lambda e: (e[0], e[2]))


def cpu_of(tid):
    return {SF: 2, SF_BINDER: 1, SF_HWC: 0, APP: 4, APP_RT: 5, APP_CODEC: 6,
            SYSUI: 3, SYSUI_RT: 7}.get(tid, tid % 8)


def video_capture():
    """The 10 s of a 23.976 fps video on a 120 Hz panel."""
    ev = Events(24)
    start = 4021_500_000_000
    period = 1_000_000_000 / 120
    vsync = lambda k: start + 2 * MS + int(round(k * period))
    end = start + 10_000 * MS
    hw = "HW_VSYNC_%d" % DISPLAY
    # Resync windows: the HWC vsync on for 12 vsyncs, six times.
    for at_ms in (0, 1700, 3900, 5200, 7600, 9100):
        first = int(at_ms * MS / period)
        for k in range(first, first + 12):
            ev.toggle(vsync(k) + 150_000, SF_HWC, hw)
    # Vsyncs with work: the compositor wakes for a buffer, the app for its UI.
    sf_wakeups = set()
    app_wakeups = set()
    # The video: MediaCodec_loop queues a buffer every 1001/24 ms.
    n = 0
    while True:
        q = start + 40 * MS + n * 1001 * MS // 24
        if q > end - 40 * MS:
            break
        ev.noise(q, APP_CODEC)
        ev.begin_end(q, APP_CODEC, "queueBuffer", 300_000)
        name = "QueuedBuffer - SurfaceView[com.example.player/com.example.player.PlayerActivity]#1BLAST#1"
        ev.counter(q + 200_000, APP_CODEC, name, 1)
        ev.counter(q + 500_000, APP_CODEC, name, 0)
        ev.counter(q + 900_000, SF_BINDER, "BufferTX - " + VIDEO_LAYER, 1)
        k = int((q + 900_000 - start - 2 * MS) / period) + 1
        ev.counter(vsync(k) + 1_200_000, SF, "BufferTX - " + VIDEO_LAYER, 0)
        ev.frames.append((q, vsync(k) + 3_300_000, 90000 + k, VIDEO_LAYER, APP))
        sf_wakeups.add(k)
        n += 1
    # The activity's UI animating at the panel's rate, three times.
    ui = 0
    for first_ms, last_ms in ((150, 400), (2000, 2600), (6300, 7100)):
        for k in range(int(first_ms * MS / period), int(last_ms * MS / period)):
            app_wakeups.add(k)
            q = vsync(k) + 4 * MS
            ev.noise(q, APP_RT)
            ev.begin_end(q, APP_RT, "queueBuffer", 250_000)
            name = "QueuedBuffer - VRI[PlayerActivity]#0BLAST#0"
            ev.counter(q + 150_000, APP_RT, name, 1)
            ev.counter(q + 400_000, APP_RT, name, 0)
            ev.counter(q + 1_000_000, SF_BINDER, "BufferTX - " + UI_LAYER, 1)
            ev.counter(vsync(k + 1) + 1_100_000, SF, "BufferTX - " + UI_LAYER, 0)
            ev.frames.append((q, vsync(k + 1) + 3_300_000, 90001 + k, UI_LAYER, APP))
            sf_wakeups.add(k + 1)
            ui += 1
    # The status bar's clock, three times.
    for at_ms in (1000, 4000, 8000):
        k = int(at_ms * MS / period)
        app_wakeups.add(k)
        q = vsync(k) + 5 * MS
        ev.noise(q, SYSUI_RT)
        ev.begin_end(q, SYSUI_RT, "queueBuffer", 300_000)
        ev.counter(q + 1_000_000, SF_BINDER, "BufferTX - " + STATUS_LAYER, 1)
        ev.counter(vsync(k + 1) + 1_000_000, SF, "BufferTX - " + STATUS_LAYER, 0)
        sf_wakeups.add(k + 1)
    for k in sorted(sf_wakeups):
        t = vsync(k)
        ev.noise(t + 100_000, SF)
        ev.toggle(t + 100_000, SF, "VSYNC-sf")
        ev.begin_end(t + 300_000, SF, "commit %d" % (90000 + k), 900_000)
        ev.begin_end(t + 1_300_000, SF, "composite %d" % (90000 + k), 2 * MS)
        ev.frames.append((t + 300_000, t + 3_300_000, 90000 + k, None, SF))
        # Vendor and framework counters that are not layers.
        ev.toggle(t + 1_400_000, SF, "VSP-mode")
        ev.counter(t + 1_500_000, SF, "LumaSamplingStep", k % 4)
    for k in sorted(app_wakeups):
        ev.toggle(vsync(k) + 120_000, SF, "VSYNC-app")
    for at_ms, value in ((0, 1), (3000, 0), (3001, 1)):
        ev.counter(start + at_ms * MS + 700_000, SF, "60fps", value)
    for at_ms, value in ((10, 52428800), (2100, 60817408), (6400, 69206016)):
        ev.counter(start + at_ms * MS + 800_000, SF, "Total Buffer Size", value)
    for at_ms, value in ((1950, 1), (2050, 0), (6250, 1), (6350, 0)):
        ev.counter(start + at_ms * MS, SF, "TouchState", value)
    return ev, n, ui


def switch_capture():
    """4 s of a 30 fps game; the panel at 60 Hz, then 120 Hz from 2.0 s."""
    ev = Events(60)
    start = 811_250_000_000
    switch = start + 2000 * MS
    game, gl = 9400, 9431
    NAMES.update({game: "example.game", gl: "GLThread 512"})
    TGID.update({game: game, gl: game})
    hw = "HW_VSYNC_%d" % DISPLAY

    def vsyncs(first, last, hz):
        t = first
        while t < last:
            yield t
            t += 1_000_000_000 // hz

    ticks = list(vsyncs(start + MS, switch, 60)) + list(vsyncs(switch + 400_000, start + 4000 * MS, 120))
    windows = [(0, 14), (1200, 14), (2000, 16), (3200, 14)]
    for at_ms, count in windows:
        first = next(i for i, t in enumerate(ticks) if t >= start + at_ms * MS)
        for t in ticks[first:first + count]:
            ev.toggle(t + 150_000, SF_HWC, hw)
    ev.counter(switch - 500_000, SF, "ActiveModeFPS -%d" % DISPLAY, 120)
    layer = "com.example.game/com.example.game.GameActivity#210"
    for n in range(119):
        q = start + 10 * MS + n * 1000 * MS // 30
        ev.noise(q, gl)
        ev.begin_end(q, gl, "queueBuffer", 200_000)
        ev.counter(q + 700_000, SF_BINDER, "BufferTX - " + layer, 1)
        k = next(t for t in ticks if t > q + 700_000)
        ev.counter(k + 1_000_000, SF, "BufferTX - " + layer, 0)
        ev.toggle(k + 100_000, SF, "VSYNC-sf")
        ev.begin_end(k + 300_000, SF, "commit %d" % (500 + n), 800_000)
    return ev


def sched_line(tid):
    prev = "swapper/%d" % cpu_of(tid)
    return ("prev_comm=%s prev_pid=0 prev_prio=120 prev_state=R ==> next_comm=%s next_pid=%d "
            "next_prio=%d") % (prev, NAMES[tid], tid, 97 if TGID[tid] == SF else 110)


def text_line(t, task, tid, tgid, cpu, event, payload):
    return "%16s-%-5d (%5s) [%03d] ...1 %6d.%06d: %s: %s" % (
        task, tid, "-----" if tgid is None else str(tgid), cpu, t // 1_000_000_000,
        t % 1_000_000_000 // 1000, event, payload)


def write_text(path, ev, comment):
    rng = random.Random(7)
    count = len(ev.items)
    lines = ["capturing trace... done", "TRACE:", "# tracer: nop", "#",
             "# entries-in-buffer/entries-written: %d/%d   #P:8" % (count, count), "#"]
    lines += ["# " + c for c in comment]
    lines += ["#                                      _-----=> irqs-off",
              "#                                     / _----=> need-resched",
              "#                                    | / _---=> hardirq/softirq",
              "#                                    || / _--=> preempt-depth",
              "#                                    ||| /     delay",
              "#           TASK-PID     TGID   CPU#  ||||    TIMESTAMP  FUNCTION",
              "#              | |         |      |   ||||       |         |"]
    for t, kind, tid, text in ev.sorted():
        cpu = cpu_of(tid)
        if kind == "mark":
            lines.append(text_line(t, NAMES[tid], tid, TGID[tid], cpu, "tracing_mark_write", text))
        elif kind == "switch":
            lines.append(text_line(t, "<idle>", 0, None, cpu, "sched_switch", sched_line(tid)))
        elif kind == "wakeup":
            lines.append(text_line(t, "kworker/u16:3", 97, 97, cpu_of(tid) ^ 1, "sched_wakeup",
                                   "comm=%s pid=%d prio=110 target_cpu=%03d" % (NAMES[tid], tid, cpu)))
        else:
            lines.append(text_line(t, NAMES[tid], tid, TGID[tid], cpu, "binder_transaction",
                                   "transaction=%d dest_node=1201 dest_proc=%d dest_thread=0 reply=0 "
                                   "flags=0x10 code=0x%x" % (t // 1000 % 9999999, SF, rng.randint(1, 40))))
    data = ("\n".join(lines) + "\n").encode()
    if path.endswith(".gz"):
        data = gzip.compress(data, mtime=0)
    with open(path, "wb") as f:
        f.write(data)


def frame_timeline_packets(frames):
    """SurfaceFlinger's FrameTimeline: an actual display frame per composition and an actual
    surface frame with a buffer per buffer of the video and the UI layer, each ended by a
    frame_end with its cookie, one event a packet."""
    packets = []
    for cookie, (start, end, token, layer, pid) in enumerate(frames, 1):
        if layer is None:
            begin = lfield(2, vfield(1, cookie) + vfield(2, token) + vfield(3, pid)
                           + vfield(4, 1) + vfield(5, 1) + vfield(7, 1) + vfield(8, 1))
        else:
            begin = lfield(4, vfield(1, cookie) + vfield(2, 500000 + cookie) + vfield(3, token)
                           + vfield(4, pid) + lfield(5, "TX - " + layer) + vfield(6, 1)
                           + vfield(7, 1) + vfield(9, 1) + vfield(10, 1) + vfield(11, 1))
        for t, event in ((start, begin), (end, lfield(5, vfield(1, cookie)))):
            packets.append(vfield(8, t) + lfield(76, event) + vfield(10, 5))
    return packets


def write_perfetto(path, ev):
    """ftrace bundles per CPU (print, sched_switch, sched_waking), as traced_probes writes them,
    a process tree, the service's clock snapshot, and SurfaceFlinger's FrameTimeline."""
    rng = random.Random(7)
    by_cpu = {}
    for t, kind, tid, text in ev.sorted():
        cpu = cpu_of(tid)
        if kind == "mark":
            body = lfield(3, vfield(1, 0xffffffc010203040) + lfield(2, text + "\n"))
        elif kind == "switch":
            body = lfield(4, lfield(1, "swapper/%d" % cpu) + vfield(2, 0) + vfield(3, 120)
                          + vfield(4, 0) + lfield(5, NAMES[tid]) + vfield(6, tid) + vfield(7, 110))
            tid = 0
        elif kind == "wakeup":
            body = lfield(20, lfield(1, NAMES[tid]) + vfield(2, tid) + vfield(3, 110)
                          + vfield(4, 1) + vfield(5, cpu))
            tid, cpu = 97, cpu ^ 1
        else:
            continue  # binder events are not in a gfx/view trace
        by_cpu.setdefault(cpu, []).append(lfield(2, vfield(1, t) + vfield(2, tid) + body))
    packets = []
    first = min(e[0] for e in ev.items)
    packets.append(lfield(6, lfield(1, vfield(1, 6) + vfield(2, first - 5 * MS))
                          + lfield(1, vfield(1, 3) + vfield(2, first - 5 * MS + 123_456))))
    procs = b"".join(lfield(1, vfield(1, pid) + vfield(2, 1) + lfield(3, cmd))
                     for pid, cmd in sorted(CMDLINE.items()) if pid in TGID)
    threads = b"".join(lfield(2, vfield(1, tid) + lfield(2, NAMES[tid]) + vfield(3, TGID[tid]))
                       for tid in sorted(TGID) if tid in NAMES)
    packets.append(vfield(8, first - 4 * MS) + lfield(2, procs + threads))
    # Bundles of up to 300 events, the CPUs interleaved as the per-CPU readers flush them.
    chunks = []
    for cpu, events in sorted(by_cpu.items()):
        for i in range(0, len(events), 300):
            chunks.append((cpu, i, events[i:i + 300]))
    chunks.sort(key=lambda c: (c[1], c[0]))
    for cpu, _, events in chunks:
        packets.append(lfield(1, vfield(1, cpu) + b"".join(events)) + vfield(10, 3))
    packets += frame_timeline_packets(ev.frames)
    with open(path, "wb") as f:
        f.write(b"".join(lfield(1, p) for p in packets))


def main():
    ev, frames, ui = video_capture()
    note = ["A GENERATED capture, not a recording (make_video_captures.py): a %d-buffer 23.976 fps"
            % frames, "video on a 120 Hz panel, %d UI buffers, 3 status bar buffers." % ui]
    write_text(os.path.join(HERE, "video_120hz_atrace.txt.gz"), ev, note)
    write_perfetto(os.path.join(HERE, "video_120hz.perfetto-trace"), ev)
    write_text(os.path.join(HERE, "refresh_switch_atrace.txt"), switch_capture(),
               ["A GENERATED capture, not a recording (make_video_captures.py): 119 buffers",
                "of a 30 fps game; the panel at 60 Hz, then 120 Hz from 2.0 s."])


if __name__ == "__main__":
    main()
