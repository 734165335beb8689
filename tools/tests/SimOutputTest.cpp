// What pelto-sim writes besides its text. The trace file must be what
// systrace parsers expect: the ftrace text header, then one tracing_mark_write
// line per event with a task, ids, a CPU, flags and a timestamp in seconds,
// B/E sections that balance per thread and C counters. The HTML page must
// stand alone (html-in-browser.sh draws it in Chromium). Checks the trace writer on its own and,
// when PELTO_TRACE_FILE and PELTO_HTML_FILE name them, the files the simulator wrote.
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tools/sim/SystraceWriter.h"

namespace android::tools::sim {
namespace {

struct ParsedTrace {
    std::vector<std::string> errors;
    std::set<std::string> counters;
    std::set<std::string> sections;
    std::set<std::string> tasks;
    size_t events = 0;
};

ParsedTrace parse(std::istream& in) {
    static const std::regex kLine(
            R"(^\s*(.+)-(\d+)\s+\(\s*(\d+)\)\s+\[(\d{3})\]\s+\S{4}\s+(\d+)\.(\d{6}): )"
            R"(tracing_mark_write: (?:B\|(\d+)\|(.+)|E\|(\d+)|C\|(\d+)\|([^|]+)\|(-?\d+))$)");
    ParsedTrace trace;
    std::string line;
    bool header = false;
    long long lastMicros = -1;
    std::map<std::string, int> depth; // open sections per thread id
    for (int number = 1; std::getline(in, line); ++number) {
        if (line.rfind('#', 0) == 0) {
            header = header || line == "# tracer: nop";
            continue;
        }
        std::smatch m;
        if (!std::regex_match(line, m, kLine)) {
            trace.errors.push_back("line " + std::to_string(number) + " malformed: " + line);
            continue;
        }
        ++trace.events;
        trace.tasks.insert(m[1]);
        const long long micros = std::stoll(m[5]) * 1'000'000 + std::stoll(m[6]);
        if (micros < lastMicros) {
            trace.errors.push_back("line " + std::to_string(number) + " goes back in time");
        }
        lastMicros = micros;
        const std::string tgid = m[3];
        const std::string payloadPid = m[7].matched ? m[7] : m[9].matched ? m[9] : m[10];
        if (payloadPid != tgid) {
            trace.errors.push_back("line " + std::to_string(number) + " names pid " + payloadPid +
                                   " in process " + tgid);
        }
        if (m[8].matched) {
            ++depth[m[2]];
            trace.sections.insert(m[8]);
        } else if (m[9].matched && --depth[m[2]] < 0) {
            trace.errors.push_back("line " + std::to_string(number) + " ends no section");
        } else if (m[11].matched) {
            trace.counters.insert(m[11]);
        }
    }
    if (!header) trace.errors.push_back("no \"# tracer: nop\" header");
    for (const auto& [tid, open] : depth) {
        if (open > 0) trace.errors.push_back("thread " + tid + " leaves sections open");
    }
    return trace;
}

TraceEvent event(TraceEvent::Kind kind, int64_t time, pid_t tid, const char* thread,
                 const char* name, int64_t value = 0) {
    return {kind, time, tid, thread, name, value};
}

TEST(SimOutputTest, writesEveryKindOfEventAsAParsableLine) {
    using Kind = TraceEvent::Kind;
    const std::vector<TraceEvent> events = {
            event(Kind::Counter, 100'000'000'000, 42, "pelto-sim", "PeltoState", 0),
            event(Kind::Begin, 100'016'666'666, 42, "pelto-sim", "composite"),
            event(Kind::Counter, 100'016'666'666, 42, "pelto-sim", "Pelto2-Q2QFps", -3),
            event(Kind::Begin, 100'016'666'666, 42, "pelto-sim", "setPeltoState, Off -> On\n"),
            event(Kind::End, 100'016'666'666, 42, "pelto-sim", ""),
            event(Kind::End, 100'016'666'666, 42, "pelto-sim", ""),
            event(Kind::Begin, 100'020'000'000, 7, "TimerDispatch", "TimerIteration #0"),
            event(Kind::End, 100'020'000'000, 7, "TimerDispatch", ""),
    };
    std::ostringstream os;
    writeSystrace(os, events, /*mainTid=*/42);
    std::istringstream in(os.str());
    const ParsedTrace trace = parse(in);

    EXPECT_TRUE(trace.errors.empty()) << trace.errors.front();
    EXPECT_EQ(trace.events, events.size());
    EXPECT_EQ(trace.counters, (std::set<std::string>{"PeltoState", "Pelto2-Q2QFps"}));
    EXPECT_EQ(
            trace.sections,
            (std::set<std::string>{"composite", "setPeltoState, Off -> On", "TimerIteration #0"}));
    EXPECT_EQ(trace.tasks, (std::set<std::string>{"surfaceflinger", "TimerDispatch"}));
    EXPECT_NE(os.str().find("surfaceflinger-1000  ( 1000) [000] ...1   100.016666: "
                            "tracing_mark_write: C|1000|Pelto2-Q2QFps|-3\n"),
              std::string::npos)
            << os.str();
    EXPECT_NE(os.str().find("TimerDispatch-1001  ( 1000)"), std::string::npos);
}

TEST(SimOutputTest, theSimulatorsTraceIsWellFormedAndCarriesTheLibrarysCounters) {
    const char* path = std::getenv("PELTO_TRACE_FILE");
    if (path == nullptr) GTEST_SKIP() << "PELTO_TRACE_FILE names no trace";
    std::ifstream in(path);
    ASSERT_TRUE(in.is_open()) << path;
    const ParsedTrace trace = parse(in);

    EXPECT_TRUE(trace.errors.empty())
            << trace.errors.size() << " errors, first: " << trace.errors.front();
    for (const char* counter : {"PeltoState", "Pelto2-Q2QFps", "PeltoHasPendingBuf",
                                "PeltoHasOtherUI", "VSYNC-sf", "HwcPeltoMode"}) {
        EXPECT_EQ(trace.counters.count(counter), 1u) << counter;
    }
    EXPECT_EQ(trace.sections.count("composite"), 1u);
}

TEST(SimOutputTest, theHtmlPageStandsAloneAndDrawsTheTimeline) {
    const char* path = std::getenv("PELTO_HTML_FILE");
    if (path == nullptr) GTEST_SKIP() << "PELTO_HTML_FILE names no page";
    std::ifstream in(path);
    ASSERT_TRUE(in.is_open()) << path;
    const std::string page((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

    EXPECT_EQ(page.rfind("<!DOCTYPE html>", 0), 0u);
    EXPECT_NE(page.find("<svg id=\"timeline\""), std::string::npos);
    EXPECT_NE(page.find("</html>"), std::string::npos);
    // One inline script and its data; nothing fetched.
    for (const char* external : {"src=", "href=", "url(", "@import", "fetch(", "XMLHttpRequest"}) {
        EXPECT_EQ(page.find(external), std::string::npos) << external;
    }
    const size_t data = page.find("<script type=\"application/json\" id=\"pelto-data\">");
    ASSERT_NE(data, std::string::npos);
    const std::string json = page.substr(data, page.find("</script>", data) - data);
    for (const char* lane : {"\"label\":\"state\"", "\"label\":\"HWC Pelto mode\"",
                             "\"label\":\"Q2Q fps\"", "\"label\":\"vsync requests\""}) {
        EXPECT_NE(json.find(lane), std::string::npos) << lane;
    }
}

} // namespace
} // namespace android::tools::sim
