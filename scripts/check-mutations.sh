#!/usr/bin/env bash
# Applies, one at a time, each mutation listed in tests/README.md to the
# library's sources, rebuilds the unit tests (build/default) and runs the
# tests that must fail. Prints KILLED or SURVIVED for each and restores the
# source every time. Exit status 1 if any mutation survived.
#
# Usage: scripts/check-mutations.sh   (after `make build`; takes a few minutes)
set -uo pipefail
cd "$(dirname "$0")/.."
survived=0
backup=$(mktemp)
trap 'rm -f "$backup"' EXIT

mutate() {
  local file=$1 old=$2 new=$3 filter=$4
  cp "$file" "$backup"
  if ! python3 - "$file" "$old" "$new" <<'PY'
import sys
path, old, new = sys.argv[1:4]
text = open(path).read()
if old not in text:
    sys.exit(1)
open(path, "w").write(text.replace(old, new, 1))
PY
  then
    echo "NOT FOUND: $file: $old"; survived=1; return
  fi
  if ! cmake --build --preset default -j "$(nproc)" --target pelto_unit_tests >/dev/null 2>&1; then
    echo "BUILD FAILED: $file: $new"; survived=1
  elif timeout 300 build/default/tests/pelto_unit_tests --gtest_filter="$filter" >/dev/null 2>&1; then
    echo "SURVIVED: $file: $old"; survived=1
  else
    echo "KILLED: $file: $old"
  fi
  cp "$backup" "$file"
}

mutate controller/PeltoModeState.cpp "            resetFps();" "" "PeltoModeState*"
mutate controller/PeltoModeState.cpp "        mHwcPeltoOn = hwcOn;" "" "PeltoModeState*"
mutate controller/PeltoModeState.cpp "        if (hwcOn) {
            mSetHwcPeltoOn();" "        if (hwcOn) {
            mHwcPeltoOn = hwcOn;
            mSetHwcPeltoOn();" "PeltoThrowing*"
mutate controller/PeltoModeState.cpp "packStateAndReason(state, reason);" "packStateAndReason(state, 0);" "PeltoModeState*"
mutate controller/PeltoComposition.cpp "                if (match == alwaysOn) {" "                if (match != alwaysOn) {" "PeltoComposition*"
mutate controller/PeltoLayerRegistry.cpp "    if (mActiveTarget.load() == layerPtr) {
        mActiveTarget = nullptr;
    }" "" "PeltoLayerRegistry*"
mutate controller/PeltoLayerRegistry.cpp "reclassification.generation == mGeneration &&" "" "PeltoLayerRegistry*"
mutate controller/PeltoQ2QRing.cpp "mQ2QDurations.size() >= kMinDurationsForAverage" "mQ2QDurations.size() > kMinDurationsForAverage" "PeltoPacing*"
mutate controller/PeltoDump.cpp "        mConfig.swap(rules);" "        mConfig.swap(rules);
        mConfig.swap(rules);" "PeltoDumpReload*"
mutate config/PeltoRuleFileReader.cpp "    if (!S_ISREG(st.st_mode)) {" "    if (S_ISDIR(st.st_mode)) {" "PeltoDumpReload*"
mutate config/PeltoRuleFileReader.cpp "if (++depth > kMaxRuleFileNesting) {" "if (++depth > kMaxRuleFileNesting + 1) {" "PeltoHostile*"
mutate controller/PeltoQ2QRing.cpp "    const int64_t period = getPeriod();
    std::lock_guard lock(mQ2QMutex);" "    std::lock_guard lock(mQ2QMutex);
    const int64_t period = getPeriod();" "PeltoHostLockMatrix*"
mutate controller/PeltoComposition.cpp "resetFpsWith(*newTargetPeriod);" "resetFps();" "PeltoHostLockMatrix*"
mutate controller/PeltoComposition.cpp "    if (s.foundGeneration != mRegistry.generation()) {" "    if (false) {" "PeltoComposition*"
mutate controller/PeltoLayerRegistry.cpp "    } else if (cursor.changes != mChanges) {" "    } else if (false) {" "PeltoDumpReload*"
mutate controller/PeltoDump.cpp "                sections.clear();" "" "PeltoDumpReload*"
mutate controller/SpinThenBlockMutex.h "return !mHeld.load(std::memory_order_relaxed) && try_lock();" "return !mHeld.load(std::memory_order_relaxed);" "SpinThenBlockMutex*"

cmake --build --preset default -j "$(nproc)" --target pelto_unit_tests >/dev/null 2>&1
exit $survived
