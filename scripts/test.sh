#!/usr/bin/env bash
# The whole test suite: native, AddressSanitizer + UndefinedBehaviorSanitizer, ThreadSanitizer, and
# the Windows build under Wine; then the fuzz targets, 20 s each (scripts/fuzz.sh). Prints the time of
# each step at the end.
# Installs missing packages first.
#   test.sh                 everything
#   test.sh native asan     only the named presets ("fuzz" names the fuzzing step)
set -uo pipefail
cd "$(dirname "$0")/.."

presets=()
fuzz=""
for p in "${@}"; do
  if [ "$p" = fuzz ]; then fuzz=fuzz; else presets+=("$p"); fi
done
[ $# -eq 0 ] && presets=(native asan tsan mingw) && fuzz=fuzz
windows=""
for p in "${presets[@]}"; do [ "$p" = mingw ] && windows=windows; done
scripts/deps.sh $windows $fuzz || exit 1

jobs=$(nproc)
start=$SECONDS
timings=()
passed=0
failed=0
failed_presets=()
for preset in "${presets[@]}"; do
  phase=$SECONDS
  echo "=== $preset: build"
  if ! cmake --preset "$preset" >/dev/null || ! cmake --build --preset "$preset" -j "$jobs"; then
    failed_presets+=("$preset (build)")
    failed=$((failed + 1))
    continue
  fi
  echo "=== $preset: test"
  log=$(mktemp)
  ctest --preset "$preset" -j "$([ "$preset" = mingw ] && echo 1 || echo "$jobs")" 2>&1 | tee "$log"
  status=${PIPESTATUS[0]}
  total=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\2/p' "$log" | tail -1)
  bad=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\1/p' "$log" | tail -1)
  rm -f "$log"
  passed=$((passed + ${total:-0} - ${bad:-0}))
  failed=$((failed + ${bad:-0}))
  if [ "$status" -ne 0 ]; then
    failed_presets+=("$preset")
    [ -z "$bad" ] && failed=$((failed + 1))
  fi
  [ "$preset" = mingw ] && ORLENDA_WINEPREFIX="$PWD/build/wineprefix" WINEPREFIX="$PWD/build/wineprefix" wineserver -k 2>/dev/null
  timings+=("$preset $((SECONDS - phase)) s")
done

if [ -n "$fuzz" ]; then
  phase=$SECONDS
  if scripts/fuzz.sh 20; then
    passed=$((passed + 1))
  else
    failed_presets+=(fuzz)
    failed=$((failed + 1))
  fi
  timings+=("fuzz $((SECONDS - phase)) s")
fi

echo
[ ${#failed_presets[@]} -gt 0 ] && echo "failed: ${failed_presets[*]}"
echo "time (build and test): ${timings[*]/%/,} total $((SECONDS - start)) s"
echo "total: $passed passed, $failed failed"
[ ${#failed_presets[@]} -eq 0 ]
