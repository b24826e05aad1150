#!/usr/bin/env bash
# Builds the fuzz targets (preset "fuzz": clang with libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer), replays every committed input whole, then runs each target for a
# bounded time on a scratch copy of its seed corpus (the XML targets: fuzz/corpus plus the settings
# schema; the framer: fuzz/corpus-frames). Fails
# when a target finds a crash, a leak, undefined behaviour or a time-out; the input that caused it
# is kept under build/fuzz/findings/.
#   fuzz.sh            30 seconds per target
#   fuzz.sh SECONDS    any other bound
set -uo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-30}
targets=(parse_text_fuzzer load_file_fuzzer frame_reader_fuzzer)
# The committed inputs of a target.
seeds() {
  case "$1" in
    frame_reader_fuzzer) echo fuzz/corpus-frames/* ;;
    *) echo fuzz/corpus/* src/settings/settings-schema.xml ;;
  esac
}
scripts/deps.sh fuzz || exit 1

echo "=== fuzz: build"
if ! cmake --preset fuzz >/dev/null || ! cmake --build --preset fuzz -j "$(nproc)"; then
  echo "fuzz: build failed"
  exit 1
fi

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
findings=$PWD/build/fuzz/findings
failed=()
for target in "${targets[@]}"; do
  echo "=== fuzz: $target, ${seconds} s"
  corpus=$scratch/$target
  mkdir -p "$corpus" "$findings/$target"
  # shellcheck disable=SC2046
  cp $(seeds "$target") "$corpus/"
  log=$scratch/$target.log
  # Every committed input first, each whole (the timed run below cuts inputs at -max_len), so that
  # a finding kept in the corpus can never come back unseen.
  if ! TMPDIR=$scratch "build/fuzz/fuzz/$target" -timeout=10 -rss_limit_mb=2048 \
       -artifact_prefix="$findings/$target/" $(seeds "$target") \
       >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz: $target FAILED on a committed input; see $findings/$target/"
    failed+=("$target")
    continue
  fi
  echo "replayed $(seeds "$target" | wc -w) committed inputs"
  # The fuzzer's own scratch files go to the scratch folder too.
  if TMPDIR=$scratch "build/fuzz/fuzz/$target" -max_total_time="$seconds" -max_len=4096 \
       -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
       -artifact_prefix="$findings/$target/" "$corpus" >"$log" 2>&1; then
    grep -E '^(#[0-9]+.*DONE|stat::number_of_executed_units|stat::new_units_added)' "$log"
  else
    tail -n 60 "$log"
    echo "fuzz: $target FAILED; input kept in $findings/$target/"
    failed+=("$target")
  fi
done

echo
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: failed: ${failed[*]}"
  exit 1
fi
echo "fuzz: ${#targets[@]} targets ran ${seconds} s each without a finding"
