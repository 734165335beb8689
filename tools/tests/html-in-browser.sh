#!/usr/bin/env bash
# Opens pelto-sim's HTML page in headless Chromium, as a whole and zoomed
# into a stretch, and fails on a script error, a timeline that was not drawn
# or has fewer than MIN_SHAPES shapes, or a missing PATTERN (grep -E) in the
# zoomed page (zoomed, fewer shapes are in view: at least one). Exit 77 (skipped) when no Chromium is installed.
#   html-in-browser.sh PAGE MIN_SHAPES FROM_S,TO_S PATTERN...
set -u
page=$(realpath "$1")
min_shapes=$2
zoom=$3
shift 3
browser=$(command -v chromium || command -v chromium-browser || command -v google-chrome || true)
if [ -z "$browser" ]; then
  echo "html-in-browser: skipped: no chromium on PATH (apt-get install chromium to run it)"
  exit 77
fi
profile=$(mktemp -d)
trap 'rm -rf "$profile"' EXIT
status=0
for view in "" "#view=$zoom"; do
  dom=$(timeout 120 "$browser" --headless --disable-gpu --no-sandbox --user-data-dir="$profile" \
    --window-size=1280,900 --dump-dom "file://$page$view" 2>/dev/null)
  body=$(printf '%s' "$dom" | grep -o '<body[^>]*>' | head -n 1)
  echo "html-in-browser: ${view:-whole run}: $body"
  need=$min_shapes
  [ -n "$view" ] && need=1
  shapes=$(printf '%s' "$body" | sed -n 's/.*data-shapes="\([0-9]*\)".*/\1/p')
  if printf '%s' "$body" | grep -q 'data-script-error'; then
    echo "html-in-browser: a script error" >&2; status=1
  elif ! printf '%s' "$body" | grep -q 'data-timeline="drawn"'; then
    echo "html-in-browser: the timeline was not drawn" >&2; status=1
  elif [ "${shapes:-0}" -lt "$need" ]; then
    echo "html-in-browser: ${shapes:-0} shapes, fewer than $need" >&2; status=1
  fi
  if [ -n "$view" ]; then
    for pattern in "$@"; do
      if ! printf '%s' "$dom" | grep -Eq -- "$pattern"; then
        echo "html-in-browser: zoomed page lacks: $pattern" >&2; status=1
      fi
    done
  fi
done
exit $status
