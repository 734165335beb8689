(function () {
  'use strict';
  window.addEventListener('error', function (e) {
    document.body.setAttribute('data-script-error', String(e.message));
  });
  var data = JSON.parse(document.getElementById('pelto-data').textContent);
  var box = document.getElementById('timeline-box');
  var svg = document.getElementById('timeline');
  var tip = document.getElementById('tip');
  var rangeText = document.getElementById('range');
  var LABEL = 250, RIGHT = 16, GAP = 8, AXIS = 22, REASON = 12, CHAR = 6.5;
  var COLOURS = {
    'On': '#2e7d32', 'Temp Off': '#f9a825', 'Off': '#9e9e9e', 'Unknown': '#000000',
    hwc: '#1565c0', full: '#00838f', forceOff: '#c62828', target: '#3949ab',
    ignored: '#b0bec5', exception: '#c62828', other: '#8d6e63', paused: '#eceff1',
    focus: '#263238'
  };
  var total = data.durationMs;
  var view = { a: 0, b: total };
  var plotW = 600;
  var tips = [];
  var q2qBox = null;
  var firstDrawMs = -1;

  function esc(s) {
    return String(s).replace(/&/g, '&amp;').replace(/</g, '&lt;').replace(/>/g, '&gt;')
        .replace(/"/g, '&quot;');
  }
  function x(t) { return LABEL + (t - view.a) / (view.b - view.a) * plotW; }
  function timeAt(px) { return view.a + (px - LABEL) / plotW * (view.b - view.a); }
  function clampX(px) { return Math.max(LABEL - 1, Math.min(LABEL + plotW + 1, px)); }
  function seconds(t) { return (t / 1000).toFixed(3) + ' s'; }
  function tipAttr(text) {
    tips.push(text);
    return ' data-tip="' + (tips.length - 1) + '"';
  }
  function inView(a, b) { return b >= view.a && a <= view.b; }
  function rect(a, b, y, h, colour, text, extra) {
    var x0 = clampX(x(a)), x1 = clampX(x(b));
    return '<rect x="' + x0.toFixed(1) + '" y="' + y + '" width="' +
        Math.max(0.6, x1 - x0).toFixed(1) + '" height="' + h + '" fill="' +
        (COLOURS[colour] || '#000000') + '"' + (extra || '') + tipAttr(text) + '/>';
  }
  // The last [time, value] at or before t, by binary search; null before the first.
  function valueAt(points, t) {
    var lo = 0, hi = points.length - 1, found = null;
    while (lo <= hi) {
      var mid = (lo + hi) >> 1;
      if (points[mid][0] <= t) { found = points[mid]; lo = mid + 1; } else { hi = mid - 1; }
    }
    return found;
  }
  // A step line of [time, value] points over the view.
  function steps(points, y, cls, title) {
    var first = valueAt(points, view.a);
    var last = first ? first[1] : 0;
    var out = [x(view.a).toFixed(1) + ',' + y(last).toFixed(1)];
    for (var i = 0; i < points.length; i++) {
      var p = points[i];
      if (p[0] <= view.a) continue;
      if (p[0] > view.b) break;
      out.push(x(p[0]).toFixed(1) + ',' + y(last).toFixed(1));
      out.push(x(p[0]).toFixed(1) + ',' + y(p[1]).toFixed(1));
      last = p[1];
    }
    out.push(x(view.b).toFixed(1) + ',' + y(last).toFixed(1));
    return '<polyline class="' + cls + '" points="' + out.join(' ') + '"' + tipAttr(title) + '/>';
  }
  function niceStep(span, pixels) {
    var raw = span * 90 / Math.max(pixels, 1);
    var p = Math.pow(10, Math.floor(Math.log10(raw)));
    var steps = [1, 2, 5, 10];
    for (var i = 0; i < steps.length; i++) if (steps[i] * p >= raw) return steps[i] * p;
    return 10 * p;
  }

  function drawLane(lane, top, out) {
    var h = lane.height, shapes = 0, i, s;
    out.push('<text class="label" x="' + (LABEL - 8) + '" y="' + (top + Math.min(h, 24) / 2 + 4) +
        '"' + tipAttr(lane.title) + '>' + esc(lane.label) + '</text>');
    out.push('<rect class="lane" x="' + LABEL + '" y="' + top + '" width="' + plotW +
        '" height="' + h + '"/>');
    var inset = lane.layer ? 4 : 0;
    var lastLabelEnd = -1, lastBelowEnd = -1;
    (lane.spans || []).forEach(function (s) {
      if (!inView(s[0], s[1])) return;
      var merged = s[5] === 'merged' && s[4] === null;
      out.push(rect(s[0], s[1], top + inset, h - 2 * inset, s[2], s[3],
          merged ? ' class="merged"' : ''));
      shapes++;
      if (!lane.reasons || merged) return;
      // The state and its reason inside the span; where it is too narrow,
      // a Temp Off span gets its reason code under it.
      var x0 = Math.max(clampX(x(s[0])), LABEL), x1 = clampX(x(s[1]));
      var full = s[4], code = s[5], long = s[6];
      if (x1 - x0 >= long.length * CHAR + 6 && x0 >= lastLabelEnd) {
        out.push('<text class="inside" x="' + (x0 + 4).toFixed(1) + '" y="' + (top + 16) + '">' +
            esc(long) + '</text>');
        lastLabelEnd = x0 + long.length * CHAR + 6;
      } else if (x1 - x0 >= full.length * CHAR + 6 && x0 >= lastLabelEnd) {
        out.push('<text class="inside" x="' + (x0 + 4).toFixed(1) + '" y="' + (top + 16) + '">' +
            esc(full) + '</text>');
        lastLabelEnd = x0 + full.length * CHAR + 6;
      } else if (x1 - x0 >= code.length * CHAR + 4 && x0 >= lastLabelEnd) {
        out.push('<text class="inside" x="' + (x0 + 2).toFixed(1) + '" y="' + (top + 16) + '">' +
            esc(code) + '</text>');
        lastLabelEnd = x0 + code.length * CHAR + 4;
      } else if (s[2] === 'Temp Off' && x0 >= lastBelowEnd) {
        out.push('<text class="below" x="' + x0.toFixed(1) + '" y="' + (top + h + REASON - 2) +
            '">' + esc(code) + '</text>');
        lastBelowEnd = x0 + code.length * 6 + 3;
      }
    });
    (lane.overlays || []).forEach(function (s) {
      if (!inView(s[0], s[1])) return;
      out.push(rect(s[0], s[1], top + inset, h - 2 * inset, s[2], s[3]));
      shapes++;
    });
    (lane.bars || []).forEach(function (s) {
      if (!inView(s[0], s[1])) return;
      out.push(rect(s[0], s[1], top + h - 6, 4, s[2], s[3]));
      shapes++;
    });
    var lastTextEnd = -1;
    // The size in force where the view starts, then each change.
    var before = lane.texts && valueAt(lane.texts, view.a);
    if (before && before[0] < view.a) {
      out.push('<text class="area" x="' + (LABEL + 2) + '" y="' + (top + 15) + '">' +
          esc(before[1]) + '</text>');
      lastTextEnd = LABEL + before[1].length * 6 + 6;
    }
    (lane.texts || []).forEach(function (t) {
      var tx = x(t[0]) + 2;
      if (t[0] < view.a || t[0] > view.b || tx < lastTextEnd) return;
      out.push('<text class="area" x="' + tx.toFixed(1) + '" y="' + (top + 15) + '">' +
          esc(t[1]) + '</text>');
      lastTextEnd = tx + t[1].length * 6 + 4;
    });
    if (lane.ticks) {
      var d = [];
      for (i = 0; i < lane.ticks.length; i++) {
        var t = lane.ticks[i];
        if (t >= view.a && t <= view.b) d.push('M' + x(t).toFixed(1) + ' ' + (top + 3) + 'v' + (h - 6));
      }
      out.push('<path stroke="#d84315" stroke-width="1" d="' + (d.join(' ') || 'M0 0') + '"' +
          tipAttr(lane.tickTip) + '/>');
      shapes += d.length;
    }
    (lane.marks || []).forEach(function (m) {
      if (m[0] < view.a || m[0] > view.b) return;
      out.push('<path fill="#283593" d="M' + x(m[0]).toFixed(1) + ' ' + (top + 4) +
          'l5 8l-5 8l-5 -8z"' + tipAttr(m[1]) + '/>');
      shapes++;
    });
    if (lane.steps) {
      var max = lane.scaleMax;
      var y = function (v) { return top + h - h * Math.max(0, Math.min(v, max)) / max; };
      [0, max / 2, max].forEach(function (v) {
        out.push('<line class="scaleline" x1="' + LABEL + '" x2="' + (LABEL + plotW) + '" y1="' +
            y(v).toFixed(1) + '" y2="' + y(v).toFixed(1) + '"/>');
        out.push('<text class="scale" x="' + (LABEL + 3) + '" y="' + (y(v) - 2).toFixed(1) +
            '">' + v + '</text>');
      });
      out.push(steps(lane.refresh, y, 'refresh', 'the display\'s refresh rate (Hz)'));
      out.push(steps(lane.steps, y, 'q2q', 'Pelto2-Q2QFps'));
      shapes += 2;
      q2qBox = { top: top, bottom: top + h, lane: lane, y: y };
    }
    return shapes;
  }

  function draw() {
    var started = performance.now();
    plotW = Math.max(300, box.clientWidth - LABEL - RIGHT);
    tips = [];
    var out = [], shapes = 0, top = 4;
    var lanes = data.lanes;
    // Lanes first (the grid needs the height), then the grid under them.
    var body = [];
    for (var i = 0; i < lanes.length; i++) {
      shapes += drawLane(lanes[i], top, body);
      top += lanes[i].height + GAP + (lanes[i].reasons ? REASON : 0);
    }
    var span = view.b - view.a;
    var step = niceStep(span, plotW);
    var decimals = Math.max(0, -Math.floor(Math.log10(step / 1000) + 1e-9));
    for (var t = Math.ceil(view.a / step) * step; t <= view.b + 1e-9; t += step) {
      var gx = x(t).toFixed(1);
      out.push('<line class="grid" x1="' + gx + '" x2="' + gx + '" y1="0" y2="' + top + '"/>');
      out.push('<text class="axis" x="' + gx + '" y="' + (top + 12) + '">' +
          (t / 1000).toFixed(decimals) + ' s</text>');
    }
    out.push('<g>' + body.join('') + '</g>');
    out.push('<line id="cursor" class="cursor" x1="0" x2="0" y1="0" y2="0" visibility="hidden"/>');
    svg.setAttribute('width', LABEL + plotW + RIGHT);
    svg.setAttribute('height', top + AXIS);
    svg.innerHTML = out.join('');
    rangeText.textContent = 'showing ' + seconds(view.a) + ' to ' + seconds(view.b) + ' of ' +
        seconds(total);
    if (firstDrawMs < 0) {
      firstDrawMs = performance.now() - started;
      document.body.setAttribute('data-draw-ms', firstDrawMs.toFixed(1));
      document.body.setAttribute('data-shapes', String(shapes));
      document.body.setAttribute('data-timeline', 'drawn');
    }
  }

  var pending = false;
  function redraw() {
    if (pending) return;
    pending = true;
    window.requestAnimationFrame(function () { pending = false; draw(); });
  }
  // The view is kept in the address (#view=FROM_S,TO_S), so a link or a
  // reload opens the same stretch of the run.
  function clampView(a, b) {
    var span = Math.min(total, Math.max(b - a, Math.min(total, 1)));
    a = Math.max(0, Math.min(a, total - span));
    view = { a: a, b: a + span };
    document.body.setAttribute('data-view', view.a.toFixed(3) + '-' + view.b.toFixed(3));
  }
  function setView(a, b) {
    clampView(a, b);
    try {
      history.replaceState(null, '', '#view=' + (view.a / 1000).toFixed(3) + ',' +
          (view.b / 1000).toFixed(3));
    } catch (e) { /* a page opened from a file may not rewrite its address */ }
    redraw();
  }
  function zoom(factor, centre) {
    if (centre === undefined) centre = (view.a + view.b) / 2;
    setView(centre - (centre - view.a) * factor, centre + (view.b - centre) * factor);
  }
  function pan(fraction) {
    var span = view.b - view.a;
    setView(view.a + span * fraction, view.b + span * fraction);
  }
  function svgX(e) { return e.clientX - svg.getBoundingClientRect().left; }
  function svgY(e) { return e.clientY - svg.getBoundingClientRect().top; }
  function inPlot(e) { var px = svgX(e); return px >= LABEL && px <= LABEL + plotW; }

  svg.addEventListener('wheel', function (e) {
    if (!inPlot(e)) return;
    e.preventDefault();
    zoom(e.deltaY > 0 ? 1.25 : 0.8, timeAt(svgX(e)));
  }, { passive: false });
  var drag = null;
  svg.addEventListener('mousedown', function (e) {
    if (!inPlot(e) || e.button !== 0) return;
    drag = { x: e.clientX, a: view.a, b: view.b };
    svg.classList.add('dragging');
    e.preventDefault();
  });
  window.addEventListener('mousemove', function (e) {
    if (drag) {
      var dt = (e.clientX - drag.x) / plotW * (drag.b - drag.a);
      setView(drag.a - dt, drag.b - dt);
      tip.hidden = true;
      return;
    }
    hover(e);
  });
  window.addEventListener('mouseup', function () {
    drag = null;
    svg.classList.remove('dragging');
  });
  svg.addEventListener('dblclick', function () { setView(0, total); });
  svg.addEventListener('mouseleave', function () { tip.hidden = true; showCursor(-1); });
  document.querySelectorAll('.toolbar button').forEach(function (b) {
    b.addEventListener('click', function () {
      var what = b.getAttribute('data-zoom');
      if (what === 'in') zoom(0.5);
      if (what === 'out') zoom(2);
      if (what === 'all') setView(0, total);
    });
  });
  window.addEventListener('keydown', function (e) {
    if (e.target !== document.body) return;
    if (e.key === '+' || e.key === '=') zoom(0.5);
    else if (e.key === '-') zoom(2);
    else if (e.key === '0') setView(0, total);
    else if (e.key === 'ArrowLeft') pan(-0.2);
    else if (e.key === 'ArrowRight') pan(0.2);
  });
  window.addEventListener('resize', redraw);

  function showCursor(px) {
    var c = document.getElementById('cursor');
    if (!c) return;
    if (px < 0 || !q2qBox) { c.setAttribute('visibility', 'hidden'); return; }
    c.setAttribute('x1', px); c.setAttribute('x2', px);
    c.setAttribute('y1', q2qBox.top); c.setAttribute('y2', q2qBox.bottom);
    c.setAttribute('visibility', 'visible');
  }
  function hover(e) {
    if (!svg.contains(e.target)) { tip.hidden = true; showCursor(-1); return; }
    var text = null, px = svgX(e), py = svgY(e);
    if (q2qBox && inPlot(e) && py >= q2qBox.top && py <= q2qBox.bottom) {
      var t = timeAt(px), lane = q2qBox.lane;
      var q = valueAt(lane.steps, t), r = valueAt(lane.refresh, t);
      text = seconds(t) + '\nQ2Q ' + (q ? q[1] : 0) + ' fps (Pelto2-Q2QFps)\ndisplay ' +
          (r ? r[1] : '?') + ' Hz' + (lane.merged ? '\n(' + lane.merged +
          ' changes, merged on this page: zoom shows the envelope)' : '');
      showCursor(px);
    } else {
      showCursor(-1);
      var el = e.target.closest ? e.target.closest('[data-tip]') : null;
      if (el) text = tips[Number(el.getAttribute('data-tip'))];
    }
    if (!text) { tip.hidden = true; return; }
    tip.textContent = text;
    tip.hidden = false;
    var left = e.clientX + 14, topPx = e.clientY + 14;
    if (left + tip.offsetWidth > window.innerWidth - 8) left = e.clientX - tip.offsetWidth - 14;
    if (topPx + tip.offsetHeight > window.innerHeight - 8) topPx = e.clientY - tip.offsetHeight - 14;
    tip.style.left = Math.max(0, left) + 'px';
    tip.style.top = Math.max(0, topPx) + 'px';
  }

  var asked = /view=([0-9.]+),([0-9.]+)/.exec(window.location.hash);
  if (asked) clampView(Number(asked[1]) * 1000, Number(asked[2]) * 1000);
  draw();
})();
