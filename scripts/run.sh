#!/usr/bin/env bash
# Builds what it needs and runs the log service in the foreground with its default settings, then
# sends it a few trace records through the log client so that they show up as they arrive.
# Stop it with Ctrl+C.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset native-release >/dev/null
cmake --build --preset native-release -j "$(nproc)" --target orlendalog logsend
bin=build/native-release/tools
(
  sleep 1
  "$bin/logsend/logsend" -count 3 "demo trace %d from the log client" >/dev/null || true
  "$bin/logsend/logsend" -level 0 -data 0001027f80ff "a failure with its data attached" >/dev/null || true
) &
exec "$bin/orlendalog/orlendalog"
