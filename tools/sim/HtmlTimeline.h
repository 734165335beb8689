#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "tools/sim/RunRecord.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// A lane draws at most about twice this many shapes: beyond it, runs of
// short neighbours are merged into one shape that says how many it holds,
// so an hour-long run gives a page of bounded size that a browser draws
// quickly.
constexpr size_t kMaxShapesPerLane = 1500;

// The timeline as data for the page's script: the run's length in ms, and
// one object per lane with the shapes to draw:
//   spans  [from_ms, to_ms, colour, tooltip, label]   filled bars
//   bars   [from_ms, to_ms, colour, tooltip]          thin strips at the bottom
//   texts  [at_ms, text]                              small texts
//   ticks  [at_ms, ...] and tickTip                   vertical ticks
//   marks  [at_ms, tooltip]                           diamonds
//   steps  [[at_ms, value], ...] and refresh, scaleMax   the Q2Q chart
// Colours are names the script maps ("On", "target", ...). Layers whose names
// differ only after the last '#' share one lane.
Json::Value timelineData(const Scenario& scenario, const RunRecord& record);

// A layer name cut for a lane label: the activity part stays, the package
// goes ("SurfaceView[PlayerActivity](BLAST)"); `level` 1 keeps the package's
// last part, 2 the whole bracket, for names that would otherwise look alike.
std::string laneName(const std::string& name, int level);

// Merges runs of spans shorter than duration / maxSpans into one span each,
// coloured as the colour that covered most of it; a merged span's tooltip
// says how many it holds and the time of each colour. Spans are
// [from_ms, to_ms, colour, tooltip, label...], in time order.
Json::Value mergeShortSpans(const Json::Value& spans, double durationMs, size_t maxSpans);

} // namespace android::tools::sim
