// The capture readers on their own: the ftrace event line in each layout a
// device writes, and what is not one; the protobuf wire format and Perfetto
// traces built here field by field, whole, out of order, compressed and
// damaged.
#include <zlib.h>

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "config/JsonNesting.h"
#include "tools/host/RegularFile.h"
#include "tools/sim/CaptureReader.h"
#include "tools/sim/CaptureScenario.h"
#include "tools/sim/FtraceLine.h"
#include "tools/sim/PerfettoReader.h"
#include "tools/sim/ProtoWire.h"

namespace android::tools::sim {
namespace {

TEST(FtraceLine, EveryColumnLayoutGivesTheSameEvent) {
    const char* kLayouts[] = {
            // TGID and irq flags (Android 9 on).
            "     RenderThread-8151  ( 8123) [005] ...1  5240.134000: tracing_mark_write: "
            "B|8123|queueBuffer",
            // Newer kernels: five flag characters.
            "     RenderThread-8151    ( 8123) [005] ...1.  5240.134000: tracing_mark_write: "
            "B|8123|queueBuffer",
            // TGID, no irq flags.
            "     RenderThread-8151  ( 8123) [005]  5240.134000: tracing_mark_write: "
            "B|8123|queueBuffer",
            // Neither (older releases).
            "     RenderThread-8151  [005]  5240.134000: tracing_mark_write: B|8123|queueBuffer",
            // No TGID, irq flags.
            "     RenderThread-8151  [005] d..2  5240.134000: tracing_mark_write: "
            "B|8123|queueBuffer",
    };
    for (const char* text : kLayouts) {
        EventLine e;
        ASSERT_TRUE(parseEventLine(text, &e)) << text;
        EXPECT_EQ(e.task, "RenderThread") << text;
        EXPECT_EQ(e.tid, 8151) << text;
        EXPECT_DOUBLE_EQ(e.seconds, 5240.134) << text;
        EXPECT_EQ(e.event, "tracing_mark_write") << text;
        EXPECT_EQ(e.payload, "B|8123|queueBuffer") << text;
    }
}

TEST(FtraceLine, TaskNamesKeepDashesSpacesAndParentheses) {
    EventLine e;
    ASSERT_TRUE(
            parseEventLine("          <idle>-0     (-----) [002] d..2  1.5: sched_switch: x", &e));
    EXPECT_EQ(e.task, "<idle>");
    EXPECT_EQ(e.tid, 0);
    ASSERT_TRUE(parseEventLine(
            " binder:612_3-640 (  612) [001] ...1 2.0: binder_transaction_received: t", &e));
    EXPECT_EQ(e.task, "binder:612_3");
    ASSERT_TRUE(parseEventLine(" Jit thread (pool)-77 [001] 2.0: 0: E", &e));
    EXPECT_EQ(e.task, "Jit thread (pool)");
    EXPECT_EQ(e.tid, 77);
    EXPECT_EQ(e.event, "0");
}

TEST(FtraceLine, RefusesWhatIsNotAnEventLine) {
    const char* kNotEvents[] = {
            "capturing trace... done",
            "TRACE:",
            "  surfaceflinger-612   (  612) [002] ...1  5240.1300", // cut short
            "  surfaceflinger-612   (  612) [002] ...1  inf: tracing_mark_write: E",
            "  surfaceflinger-612   (  612) [002] ...1  -1.5: tracing_mark_write: E",
            "  surfaceflinger-612   (  612) [002] ...1  1e300: tracing_mark_write: E",
            "  surfaceflinger-612   (  612) [002] ...1  12345678901.0: tracing_mark_write: E",
            "  surfaceflinger-99999999999 [002] 1.0: tracing_mark_write: E", // tid past 32 bits
            "  surfaceflinger [002] 1.0: tracing_mark_write: E",             // no tid
    };
    for (const char* text : kNotEvents) {
        EventLine e;
        EXPECT_FALSE(parseEventLine(text, &e)) << text;
    }
}

// A message in the wire format, written field by field.
struct Proto {
    std::string out;

    Proto& varint(uint32_t field, uint64_t value) {
        raw((uint64_t{field} << 3) | proto::kVarint);
        raw(value);
        return *this;
    }
    Proto& bytes(uint32_t field, const std::string& data) {
        raw((uint64_t{field} << 3) | proto::kBytes);
        raw(data.size());
        out += data;
        return *this;
    }
    Proto& message(uint32_t field, const Proto& m) { return bytes(field, m.out); }
    void raw(uint64_t v) {
        for (; v >= 0x80; v >>= 7) out += static_cast<char>(v | 0x80);
        out += static_cast<char>(v);
    }
};

// TracePacket with an ftrace bundle of print events: (time, tid, text).
Proto ftracePacket(std::initializer_list<std::tuple<uint64_t, int, std::string>> prints) {
    Proto bundle;
    bundle.varint(1, 0);
    for (const auto& [t, tid, text] : prints) {
        bundle.message(2,
                       Proto().varint(1, t).varint(2, tid).message(
                               3, Proto().varint(1, 0xffffffff81000000).bytes(2, text)));
    }
    return Proto().message(1, bundle).varint(10, 7);
}

// A FrameTimeline packet: 2 a display frame of `pid`, 4 a surface frame of
// `layer`, 5 the end of the frame `cookie`.
Proto framePacket(uint64_t t, int kind, int64_t cookie, int pid, const std::string& layer = "") {
    Proto frame;
    frame.varint(1, static_cast<uint64_t>(cookie));
    if (kind == 2) frame.varint(3, pid);
    if (kind == 4) frame.varint(4, pid).bytes(5, layer).varint(11, 1);
    return Proto().varint(8, t).varint(58, 6).message(76, Proto().message(kind, frame));
}

std::string trace(std::initializer_list<Proto> packets) {
    Proto t;
    for (const Proto& p : packets) t.message(1, p);
    return t.out;
}

// Reads `bytes` as a trace, handed over 7 bytes at a time.
bool read(const std::string& bytes, PerfettoTrace* out, std::string* error,
          const PerfettoLimits& limits = {}) {
    size_t pos = 0;
    const ReadBytes source = [&](uint8_t* buffer, size_t size, std::string*) {
        const size_t n = std::min({size, bytes.size() - pos, size_t{7}});
        std::copy(bytes.begin() + static_cast<long>(pos),
                  bytes.begin() + static_cast<long>(pos + n), buffer);
        pos += n;
        return static_cast<long>(n);
    };
    return readPerfetto(source, "t.pftrace", out, error, limits);
}

std::string deflated(const std::string& data) {
    uLongf size = compressBound(data.size());
    std::string out(size, '\0');
    compress(reinterpret_cast<Bytef*>(out.data()), &size,
             reinterpret_cast<const Bytef*>(data.data()), data.size());
    out.resize(size);
    return out;
}

TEST(ProtoWire, VarintsAndLengthsAreBoundsChecked) {
    const auto fields = [](const std::string& bytes, std::string* error) {
        proto::Reader reader(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        proto::Field f;
        int n = 0;
        while (reader.next(&f)) ++n;
        *error = reader.error() == nullptr ? "" : reader.error();
        return n;
    };
    std::string error;
    // 2^64 - 1 in ten bytes; a negative int32 sign-extended.
    Proto max;
    max.varint(1, UINT64_MAX).varint(2, static_cast<uint64_t>(int64_t{-5}));
    proto::Reader reader(reinterpret_cast<const uint8_t*>(max.out.data()), max.out.size());
    proto::Field f;
    ASSERT_TRUE(reader.next(&f));
    EXPECT_EQ(f.value, UINT64_MAX);
    ASSERT_TRUE(reader.next(&f));
    EXPECT_EQ(f.asInt32(), -5);
    EXPECT_FALSE(reader.next(&f));
    EXPECT_EQ(reader.error(), nullptr);
    // Eleven bytes, a tenth byte above 1, cut short.
    EXPECT_EQ(fields(std::string("\x08") + std::string(10, '\xff') + "\x01", &error), 0);
    EXPECT_NE(error, "");
    EXPECT_EQ(fields(std::string("\x08") + std::string(9, '\xff') + "\x02", &error), 0);
    EXPECT_NE(error, "");
    EXPECT_EQ(fields("\x08\x96", &error), 0);
    EXPECT_NE(error, "");
    // A length past the end, a huge length, a group, field number 0, a fixed64 cut short.
    for (const char* bad :
         {"\x0a\x05"
          "abc",
          "\x0a\xff\xff\xff\xff\xff\xff\xff\xff\x7f", "\x0b\x0c", "\x02\x00", "\x09\x01\x02"}) {
        EXPECT_EQ(fields(bad, &error), 0) << bad;
        EXPECT_NE(error, "") << bad;
    }
    // Unknown fields of every wire type are read past.
    EXPECT_EQ(
            fields(Proto().varint(900, 1).bytes(131072, "x").out + "\x0d\x01\x02\x03\x04", &error),
            3);
    EXPECT_EQ(error, "");
}

TEST(PerfettoReader, MarksNamesAndFramesInTimeOrder) {
    // CPU 1's bundle before CPU 0's earlier one; prints end in "\n" or
    // "\n\0"; E, S and text that is not a mark are not kept.
    const std::string bytes = trace({
            Proto().message(2,
                            Proto().message(1,
                                            Proto().varint(1, 600)
                                                    .bytes(3, "/system/bin/surfaceflinger")
                                                    .bytes(3, "--x"))
                                    .message(2,
                                             Proto().varint(1, 7010)
                                                     .bytes(2, "RenderThread")
                                                     .varint(3, 7000))),
            ftracePacket({{2000, 7010, "B|7000|queueBuffer\n"}, {2500, 7010, "E|7000\n"}}),
            ftracePacket({{1000, 600, "C|600|VSYNC-sf|1\n\0"},
                          {1500, 600, "S|600|x|1\n"},
                          {1600, 1, "hello"}}),
            framePacket(3000, 4, 77, 7000, "TX - app#1"),
            framePacket(2900, 2, 5, 600),
            framePacket(3400, 5, 77, 0),
            Proto().varint(8, 1).bytes(99, "an unknown field").varint(3000, 4),
    });
    PerfettoTrace t;
    std::string error;
    ASSERT_TRUE(read(bytes, &t, &error)) << error;
    ASSERT_EQ(t.marks.size(), 2u);
    EXPECT_EQ(t.marks[0].time, 1000);
    EXPECT_EQ(t.marks[0].text, "C|600|VSYNC-sf|1");
    EXPECT_EQ(t.marks[1].tid, 7010);
    EXPECT_EQ(t.marks[1].text, "B|7000|queueBuffer");
    EXPECT_EQ(t.processNames[600], "/system/bin/surfaceflinger");
    EXPECT_EQ(t.threadNames[7010], "RenderThread");
    ASSERT_EQ(t.displayFrames.size(), 1u);
    EXPECT_EQ(t.displayFrames[0].pid, 600);
    ASSERT_EQ(t.surfaceFrames.size(), 1u);
    EXPECT_EQ(t.surfaceFrames[0].time, 3400); // its end
    EXPECT_EQ(t.surfaceFrames[0].layer, "TX - app#1");
    EXPECT_EQ(t.packets, 7);
}

TEST(PerfettoReader, DriverMarksReadAsTheirAtraceText) {
    // Each driver's tracepoint keeps pid, name, kind and value in fields of
    // its own; marks without a kind or a name are not kept.
    const auto event = [](uint64_t t, uint32_t field, const Proto& payload) {
        return Proto().varint(1, t).varint(2, 9).message(field, payload);
    };
    Proto bundle;
    bundle.varint(1, 0)
            .message(2, event(100, 80, Proto().varint(1, 5).bytes(2, "commit").varint(3, 1)))
            .message(2,
                     event(110, 331,
                           Proto().varint(1, 4).bytes(2, "TE").varint(3, 6).varint(
                                   4, static_cast<uint64_t>(int64_t{-2}))))
            .message(2,
                     event(120, 333,
                           Proto().varint(1, 7).bytes(2, "fps").varint(3, 'C').varint(4, 120)))
            .message(2, event(130, 333, Proto().varint(1, 7).bytes(2, "kick").varint(5, 0)))
            .message(2, event(140, 348, Proto().bytes(4, "frame").varint(5, 'B')))
            .message(2,
                     event(150, 350,
                           Proto().bytes(1, "gpu").varint(2, 8).varint(3, 'C').varint(4, 3)))
            .message(2, event(160, 467, Proto().bytes(1, "cam").varint(2, 'B').bytes(4, "isr")))
            .message(2, event(170, 484, Proto().varint(1, 3).bytes(2, "no kind")))
            .message(2, event(180, 349, Proto().bytes(4, "").varint(5, 'B')));
    PerfettoTrace t;
    std::string error;
    ASSERT_TRUE(read(trace({Proto().message(1, bundle).varint(10, 7)}), &t, &error)) << error;
    std::vector<std::string> texts;
    for (const PerfettoTrace::Mark& m : t.marks) texts.push_back(m.text);
    EXPECT_EQ(texts,
              (std::vector<std::string>{"B|5|commit", "C|6|TE|-2", "C|7|fps|120", "B|0|frame",
                                        "C|8|gpu|3", "B|0|isr"}));
}

TEST(PerfettoReader, ClocksAndCompressedPackets) {
    // A MONOTONIC frame (clock 3) converted by the latest snapshot before it;
    // a bundle on the global clock with its pair of readings; prints inside
    // compressed packets.
    const auto snapshot = [](uint64_t mono, uint64_t boot) {
        return Proto().message(6,
                               Proto().message(1, Proto().varint(1, 3).varint(2, mono))
                                       .message(1, Proto().varint(1, 6).varint(2, boot)));
    };
    Proto globalClock = ftracePacket({{50'000, 1, "C|1|x|1"}});
    globalClock.out =
            Proto().message(1,
                            Proto().varint(5, 2).varint(6, 40'000).varint(7, 90'000).message(
                                    2,
                                    Proto().varint(1, 50'000).varint(2, 1).message(
                                            3, Proto().bytes(2, "C|1|x|1"))))
                    .out;
    const std::string inner = trace({ftracePacket({{700, 2, "C|2|y|1"}})});
    const std::string bytes = trace({
            snapshot(100, 1100),
            snapshot(500, 2000),
            Proto().varint(8, 600).varint(58, 3).message(76,
                                                         Proto().message(2, Proto().varint(3, 9))),
            globalClock,
            Proto().bytes(50, deflated(inner)),
    });
    PerfettoTrace t;
    std::string error;
    ASSERT_TRUE(read(bytes, &t, &error)) << error;
    ASSERT_EQ(t.displayFrames.size(), 1u);
    EXPECT_EQ(t.displayFrames[0].time, 2100);
    ASSERT_EQ(t.marks.size(), 2u);
    EXPECT_EQ(t.marks[0].text, "C|2|y|1");
    EXPECT_EQ(t.marks[1].time, 100'000);
    // zstd-compressed packets are counted, not read.
    ASSERT_TRUE(read(trace({Proto().bytes(133, "\x28\xb5\x2f\xfd")}), &t, &error)) << error;
    EXPECT_EQ(t.zstdBundles, 1);
    // A sequence's own clock, or one with no snapshot, is left out and counted.
    ASSERT_TRUE(read(
            trace({Proto().varint(8, 5).varint(58, 64).message(76, Proto().message(2, Proto())),
                   Proto().varint(8, 5).varint(58, 1).message(76, Proto().message(2, Proto()))}),
            &t, &error));
    EXPECT_EQ(t.unreadEvents, 2);
}

TEST(PerfettoReader, TrackEventSlicesAndCountersBecomeMarks) {
    // The Perfetto SDK's way: a cleared sequence with an incremental clock
    // 64 (2 ns a tick) from a snapshot, interned names, a thread track and a
    // counter track under surfaceflinger's process track.
    const auto event = [](uint64_t delta, Proto body) {
        return Proto().varint(8, delta).varint(10, 9).message(11, body);
    };
    const std::string bytes = trace({
            Proto().varint(10, 9)
                    .varint(13, 1)
                    .message(59, Proto().varint(58, 64))
                    .message(6,
                             Proto().message(1, Proto().varint(1, 6).varint(2, 1'000'000))
                                     .message(1,
                                              Proto().varint(1, 64)
                                                      .varint(2, 500'000)
                                                      .varint(3, 1)
                                                      .varint(4, 2)))
                    .message(12, Proto().message(2, Proto().varint(1, 1).bytes(2, "queueBuffer"))),
            Proto().message(60,
                            Proto().varint(1, 100).message(
                                    3, Proto().varint(1, 600).bytes(6, "surfaceflinger"))),
            Proto().message(
                    60,
                    Proto().varint(1, 101).varint(5, 100).message(
                            4, Proto().varint(1, 600).varint(2, 610).bytes(5, "binder:600_2"))),
            Proto().message(60,
                            Proto().varint(1, 102)
                                    .varint(5, 100)
                                    .bytes(13, "VSYNC-sf")
                                    .message(8, Proto())),
            event(50, Proto().varint(9, 1).varint(10, 1).varint(11, 101)),         // t 1,000,100
            event(25, Proto().varint(9, 4).varint(11, 102).varint(30, 1)),         // t 1,000,150
            event(5, Proto().varint(9, 1).varint(10, 7).varint(11, 101)),          // no such name
            event(5, Proto().varint(9, 1).bytes(23, "composite").varint(11, 999)), // no such track
            // After a loss, a packet that needs the state is left out.
            Proto().varint(8, 5).varint(10, 9).varint(42, 1).varint(13, 2).message(
                    11, Proto().varint(9, 1).varint(10, 1).varint(11, 101)),
    });
    PerfettoTrace t;
    std::string error;
    ASSERT_TRUE(read(bytes, &t, &error)) << error;
    ASSERT_EQ(t.marks.size(), 2u);
    EXPECT_EQ(t.marks[0].time, 1'000'100);
    EXPECT_EQ(t.marks[0].tid, 610);
    EXPECT_EQ(t.marks[0].text, "B|600|queueBuffer");
    EXPECT_EQ(t.marks[1].time, 1'000'150);
    EXPECT_EQ(t.marks[1].text, "C|600|VSYNC-sf|1");
    EXPECT_EQ(t.processNames[600], "surfaceflinger");
    EXPECT_EQ(t.threadNames[610], "binder:600_2");
    EXPECT_EQ(t.unreadEvents, 3);
}

TEST(PerfettoReader, DamagedAndHostileTracesAreRefusedWithTheirPlace) {
    const std::string good =
            trace({ftracePacket({{1000, 600, "C|600|VSYNC-sf|1"}}), framePacket(3000, 2, 5, 600)});
    PerfettoTrace t;
    std::string error;
    // Every cut: a clean end between packets, else an error; never a crash.
    for (size_t n = 0; n < good.size(); ++n) {
        PerfettoTrace cut;
        if (!read(good.substr(0, n), &cut, &error)) {
            EXPECT_NE(error.find("t.pftrace"), std::string::npos);
        }
    }
    const std::string cut = good.substr(0, good.size() - 3);
    EXPECT_FALSE(read(cut, &t, &error));
    EXPECT_NE(
            error.find("byte " +
                       std::to_string(good.size() - trace({framePacket(3000, 2, 5, 600)}).size()) +
                       ": the trace is cut short"),
            std::string::npos)
            << error;
    // A packet claiming 2^62 bytes.
    EXPECT_FALSE(read("\x0a\x80\x80\x80\x80\x80\x80\x80\x80\x40", &t, &error));
    EXPECT_NE(error.find("more than the 64 MiB a packet may have"), std::string::npos) << error;
    // A nested length past its packet's end.
    EXPECT_FALSE(read(trace({Proto().bytes(1, "\x12\x7f")}), &t, &error));
    EXPECT_NE(error.find("packet 1 (byte 0): ftrace_events: a length past the end"),
              std::string::npos)
            << error;
    // Compressed packets inside compressed packets; damaged zlib; a bomb.
    const std::string twice =
            trace({Proto().bytes(50, deflated(trace({Proto().bytes(50, deflated(good))})))});
    EXPECT_FALSE(read(twice, &t, &error));
    EXPECT_NE(error.find("compressed packets inside compressed packets"), std::string::npos)
            << error;
    EXPECT_FALSE(read(trace({Proto().bytes(50, "\x78\x9c garbage")}), &t, &error));
    EXPECT_NE(error.find("compressed packets: "), std::string::npos) << error;
    PerfettoLimits small;
    small.maxPacket = 1 << 20;
    EXPECT_FALSE(read(trace({Proto().bytes(50, deflated(std::string(2 << 20, '\0')))}), &t, &error,
                      small));
    EXPECT_NE(error.find("inflate to more than the limit (1 MiB)"), std::string::npos) << error;
    // More kept than the limit.
    small.maxKept = 1000;
    std::string many;
    for (int i = 0; i < 40; ++i) many += trace({ftracePacket({{1000, 600, "C|600|VSYNC-sf|1"}})});
    EXPECT_FALSE(read(many, &t, &error, small));
    EXPECT_NE(error.find("too large a trace to play"), std::string::npos) << error;
    // Garbage after a good start: an error or a clean read, never a crash.
    uint32_t seed = 1;
    for (int round = 0; round < 2000; ++round) {
        std::string junk = good.substr(0, 4);
        for (int i = 0; i < 64; ++i)
            junk += static_cast<char>((seed = seed * 1103515245 + 12345) >> 16);
        PerfettoTrace any;
        read(junk, &any, &error);
    }
}

TEST(PerfettoReader, PlaysThroughTheCaptureReaderLikeText) {
    // A 120 Hz VSYNC-sf counter, an app's queueBuffer slices and its
    // layer's BufferTX counter, gzip'd: the same capture as text would give.
    std::vector<std::tuple<uint64_t, int, std::string>> prints;
    for (int i = 0; i < 10; ++i) {
        const uint64_t t = 5'000'000'000 + i * 8'333'333ull;
        prints.emplace_back(t, 600, "C|600|VSYNC-sf|" + std::to_string(i % 2) + "\n");
        if (i >= 2 && i < 8) {
            prints.emplace_back(t + 1'000'000, 7010, "B|7000|queueBuffer\n");
            prints.emplace_back(t + 1'200'000, 640,
                                "C|600|BufferTX - app#0|" + std::to_string(i - 1) + "\n");
        }
    }
    Proto bundle;
    for (auto it = prints.rbegin(); it != prints.rend(); ++it) { // newest first
        const auto& [t, tid, text] = *it;
        bundle.message(2, Proto().varint(1, t).varint(2, tid).message(3, Proto().bytes(2, text)));
    }
    const std::string bytes = trace({Proto().message(1, bundle)});
    const std::string path = testing::TempDir() + "capture_reader_test.pftrace.gz";
    gzFile file = gzopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    gzwrite(file, bytes.data(), static_cast<unsigned>(bytes.size()));
    gzclose(file);
    Capture capture;
    std::string error;
    ASSERT_TRUE(readCapture(path, &capture, &error)) << error;
    std::remove(path.c_str());
    EXPECT_EQ(capture.unit, "packets");
    EXPECT_EQ(capture.compositorPid, 600);
    ASSERT_EQ(capture.refresh.size(), 1u);
    EXPECT_EQ(capture.refresh[0].refreshHz, 120);
    ASSERT_EQ(capture.layers.size(), 1u);
    EXPECT_EQ(capture.layers[0].name, "app#0");
    EXPECT_EQ(capture.layers[0].buffers.size(), 6u);
    // The compositor's BufferTX counter gives the times.
    EXPECT_EQ(capture.layers[0].buffers[0], 2 * 8'333'333 + 1'200'000);
}

// A text capture of one second: the hardware vsync in two resync windows at
// 120 Hz, VSYNC-sf only on the video's 24 Hz vsyncs, a video and an animated
// UI in one process, a vendor counter that moves with the video, and a
// counter named like an activity (no BufferTX, no #N) fed by another app.
TEST(CaptureReader, PanelRateFromResyncWindowsAndEachBufferToItsLayer) {
    const std::string path = testing::TempDir() + "capture_reader_test_layers.txt";
    FILE* file = fopen(path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    const auto line = [&](int64_t us, const char* task, int tid, int tgid,
                          const std::string& mark) {
        fprintf(file, "%16s-%-5d (%5d) [001] ...1  100.%06lld: tracing_mark_write: %s\n", task, tid,
                tgid, static_cast<long long>(us), mark.c_str());
    };
    const std::string video = "SurfaceView[com.example/com.example.Player](BLAST)#9";
    const std::string ui = "com.example/com.example.Player#7";
    for (int k = 0; k < 118; ++k) {
        const int64_t v = k * 1'000'000 / 120;
        if (k < 8 || (k >= 60 && k < 68)) {
            line(v, "HwBinder:600_1", 620, 600,
                 "C|600|HW_VSYNC_4619827259835644672|" + std::to_string(k % 2));
        }
        if (k % 5 == 0) {
            line(v + 200, "surfaceflinger", 600, 600,
                 "C|600|VSYNC-sf|" + std::to_string(k / 5 % 2));
            line(v + 300, "MediaCodec_loop", 7050, 7000, "B|7000|queueBuffer");
            line(v + 400, "surfaceflinger", 600, 600,
                 "C|600|VSP-mode|" + std::to_string(k / 5 % 2));
            line(v + 900, "binder:600_2", 640, 600,
                 "C|600|BufferTX - " + video + "|" + std::to_string(k / 5 + 1));
        }
        if (k >= 30 && k < 50) {
            line(v + 2000, "RenderThread", 7010, 7000, "B|7000|queueBuffer");
            line(v + 3000, "binder:600_2", 640, 600,
                 "C|600|BufferTX - " + ui + "|" + std::to_string(k));
        }
        if (k % 40 == 1) {
            line(v + 4000, "RenderThread", 8010, 8000, "B|8000|queueBuffer");
            line(v + 5000, "surfaceflinger", 600, 600,
                 "C|600|com.other/com.other.Main|" + std::to_string(k));
        }
    }
    fclose(file);
    Capture capture;
    std::string error;
    ASSERT_TRUE(readCapture(path, &capture, &error)) << error;
    std::remove(path.c_str());
    ASSERT_EQ(capture.refresh.size(), 1u);
    EXPECT_EQ(capture.refresh[0].refreshHz, 120);
    EXPECT_TRUE(capture.refreshTrusted);
    EXPECT_NE(capture.vsyncSource.find("HW_VSYNC_4619827259835644672 (pid 600: 2 windows"),
              std::string::npos)
            << capture.vsyncSource;
    ASSERT_EQ(capture.layers.size(), 3u);
    EXPECT_EQ(capture.layers[0].name, video);
    EXPECT_EQ(capture.layers[0].buffers.size(), 24u);
    EXPECT_NE(capture.layers[0].source.find("queued by MediaCodec_loop (tid 7050)"),
              std::string::npos);
    EXPECT_EQ(capture.layers[1].name, ui);
    EXPECT_EQ(capture.layers[1].buffers.size(), 20u);
    EXPECT_NE(capture.layers[1].source.find("queued by RenderThread (tid 7010)"),
              std::string::npos);
    EXPECT_EQ(capture.layers[2].name, "com.other/com.other.Main");
    EXPECT_EQ(capture.layers[2].source,
              "the queueBuffer slices of pid 8000; queued by RenderThread (tid 8010) of pid 8000");
    EXPECT_EQ(capture.skippedCounters, std::vector<std::string>{"VSP-mode"});
}

TEST(CaptureReader, WhatItKeepsIsBounded) {
    const std::string path = testing::TempDir() + "capture_reader_test_kept.txt";
    FILE* file = fopen(path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    for (int i = 0; i < 100; ++i) {
        fprintf(file,
                "  surfaceflinger-600 (  600) [002] ...1  100.%06d: tracing_mark_write: "
                "C|600|VSYNC-sf|%d\n",
                i * 8333, i % 2);
    }
    fclose(file);
    Capture capture;
    std::string error;
    // Under the limit it is read whole (and has no layer to play).
    EXPECT_FALSE(readCapture(path, &capture, &error, 1000));
    EXPECT_NE(error.find("no layer with buffers"), std::string::npos) << error;
    // The name (78 bytes), the counter (104), then 8 a tick: the 40th passes 500.
    Capture small;
    EXPECT_FALSE(readCapture(path, &small, &error, 500));
    EXPECT_NE(error.find("line 40: more than 500 bytes of vsync ticks"), std::string::npos)
            << error;
    std::remove(path.c_str());
}

TEST(CaptureScenario, LayerOptionGivesSizeFocusAndSpan) {
    LayerGiven g;
    std::string error;
    ASSERT_TRUE(parseLayerOption("app=1080x608,focus,visible=100-900.5", &g, &error)) << error;
    EXPECT_EQ(g.name, "app");
    EXPECT_EQ(g.width * g.height, 1080u * 608u);
    EXPECT_TRUE(g.focus && g.visibleGiven);
    EXPECT_EQ(g.from, 100'000'000);
    EXPECT_EQ(g.to, 900'500'000);
    for (const char* bad : {"=1x1", "app", "app=1x", "app=0x5", "app=1x1x", "app=1x1,",
                            "app=1x1,visible=5-3", "app=1x1,focus,bogus"}) {
        EXPECT_FALSE(parseLayerOption(bad, &g, &error)) << bad;
        EXPECT_EQ(error.rfind(std::string("--layer ") + bad + ": ", 0), 0u) << error;
    }

    Capture capture;
    capture.path = "c.txt";
    capture.refresh = {{0, 60}};
    capture.duration = 1'000'000'000;
    capture.layers = {{"app#1", {0, 16'666'667}, "its counter"},
                      {"bar#2", {0, 33'333'333}, "its counter"}};
    CapturePlay play;
    ASSERT_TRUE(parseLayerOption("app=1080x608,focus,visible=100-900.5", &g, &error));
    play.layers = {g};
    Scenario s;
    ASSERT_TRUE(captureScenario(capture, play, &s, &error)) << error;
    EXPECT_EQ(s.layers[0].areas[0].area, 1080.0f * 608);
    EXPECT_EQ(s.layers[0].focused.size(), 1u);
    EXPECT_EQ(s.layers[0].visible[0].to, 900'500'000);
    EXPECT_EQ(s.layers[1].areas[0].area, 1080.0f * 2400);
    EXPECT_TRUE(s.layers[1].focused.empty());
    ASSERT_EQ(s.capture->assumedFor.size(), 1u);
    EXPECT_EQ(s.capture->assumedFor[0].what, "the geometry of 1 of 2 layers (--layer to give)");
    play.layers[0].name = "ap#1";
    EXPECT_FALSE(captureScenario(capture, play, &s, &error));
    EXPECT_EQ(error,
              "c.txt: --layer app=1080x608,focus,visible=100-900.5: no layer of that name; "
              "close: app#1, bar#2");
}

TEST(RegularFile, NestingCountsOnlyBracketsOutsideStringsAndComments) {
    EXPECT_FALSE(jsonNestsDeeperThan("[[[]]]", 3));
    EXPECT_TRUE(jsonNestsDeeperThan("[[[[]]]]", 3));
    EXPECT_TRUE(jsonNestsDeeperThan("[[[[", 3)); // unclosed still counts
    EXPECT_FALSE(jsonNestsDeeperThan(R"({"a": "[[[[\"[[", "b": [1]})", 2));
    EXPECT_FALSE(jsonNestsDeeperThan("// [[[[\n/* {{{{ */ [[]]", 2));
}

TEST(RegularFile, OnlyRegularFilesUnderTheCap) {
    std::string text;
    std::string error;
    EXPECT_FALSE(readRegularFile("/dev/null", 10, &text, &error));
    EXPECT_NE(error.find("/dev/null: not a regular file"), std::string::npos) << error;
    EXPECT_FALSE(readRegularFile("/tmp", 10, &text, &error));
    EXPECT_NE(error.find("a directory"), std::string::npos) << error;
    const std::string path = testing::TempDir() + "input_file_test.json";
    FILE* file = fopen(path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    fputs("{\"a\": 1}", file);
    fclose(file);
    EXPECT_TRUE(readRegularFile(path, 8, &text, &error)) << error;
    EXPECT_EQ(text, "{\"a\": 1}");
    EXPECT_FALSE(readRegularFile(path, 7, &text, &error));
    EXPECT_NE(error.find("8 bytes, more than the 7 bytes"), std::string::npos) << error;
    std::remove(path.c_str());
}

} // namespace
} // namespace android::tools::sim
