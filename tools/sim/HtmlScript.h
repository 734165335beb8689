#pragma once

namespace android::tools::sim {

// Both are defined by a build step (tools/sim/page/embed.cmake) from
// tools/sim/page/page.css and tools/sim/page/timeline.js: edit those files.

// The page's style sheet.
extern const char* const kPageStyle;

// The page's one script. It draws the timeline from the JSON in the element
// "pelto-data" (see timelineData) into the SVG "timeline", as wide as the
// window, and redraws it on a resize, a zoom (wheel, the +/- buttons or
// keys) or a pan (drag, arrow keys). Hovering shows a shape's text, and on
// the Q2Q lane the traced rate and the refresh rate at that time. When it
// has drawn, it sets data-timeline="drawn" on <body> (with the number of
// shapes and the time the first drawing took), and a script error sets
// data-script-error, so a headless browser can tell that the page works.
extern const char* const kTimelineScript;

} // namespace android::tools::sim
