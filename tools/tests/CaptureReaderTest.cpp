// The capture readers on their own: the ftrace event line in each layout a
// device writes, and what is not one.
#include <string>

#include <gtest/gtest.h>

#include "tools/sim/FtraceLine.h"

namespace android::tools::sim {
namespace {

TEST(FtraceLine, EveryColumnLayoutGivesTheSameEvent) {
    const char* kLayouts[] = {
            // TGID and irq flags (Android 9 on).
            "     RenderThread-8151  ( 8123) [005] ...1  5240.134000: tracing_mark_write: B|8123|queueBuffer",
            // Newer kernels: five flag characters.
            "     RenderThread-8151    ( 8123) [005] ...1.  5240.134000: tracing_mark_write: B|8123|queueBuffer",
            // TGID, no irq flags.
            "     RenderThread-8151  ( 8123) [005]  5240.134000: tracing_mark_write: B|8123|queueBuffer",
            // Neither (older releases).
            "     RenderThread-8151  [005]  5240.134000: tracing_mark_write: B|8123|queueBuffer",
            // No TGID, irq flags.
            "     RenderThread-8151  [005] d..2  5240.134000: tracing_mark_write: B|8123|queueBuffer",
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
    ASSERT_TRUE(parseEventLine("          <idle>-0     (-----) [002] d..2  1.5: sched_switch: x", &e));
    EXPECT_EQ(e.task, "<idle>");
    EXPECT_EQ(e.tid, 0);
    ASSERT_TRUE(parseEventLine(" binder:612_3-640 (  612) [001] ...1 2.0: binder_transaction_received: t", &e));
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
            "  surfaceflinger-612   (  612) [002] ...1  5240.1300",  // cut short
            "  surfaceflinger-612   (  612) [002] ...1  inf: tracing_mark_write: E",
            "  surfaceflinger-612   (  612) [002] ...1  -1.5: tracing_mark_write: E",
            "  surfaceflinger-612   (  612) [002] ...1  1e300: tracing_mark_write: E",
            "  surfaceflinger-612   (  612) [002] ...1  12345678901.0: tracing_mark_write: E",
            "  surfaceflinger-99999999999 [002] 1.0: tracing_mark_write: E",  // tid past 32 bits
            "  surfaceflinger [002] 1.0: tracing_mark_write: E",              // no tid
    };
    for (const char* text : kNotEvents) {
        EventLine e;
        EXPECT_FALSE(parseEventLine(text, &e)) << text;
    }
}

} // namespace
} // namespace android::tools::sim
