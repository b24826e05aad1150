#!/usr/bin/env bash
# Tracing benchmark: records per second delivered to a real log service, and the in-process cost
# of tracing on the request path. Reports figures; never passes or fails on time.
#   bench/log_bench.sh native [RECORDS]   optimised native build (build/native-release): logsend
#                                         into orlendalog, then trace_bench with orlendalog running
#                                         and without it
#   bench/log_bench.sh wine [RECORDS]     the Windows build (build/mingw) under Wine: logsend.exe
#                                         into orlendalog.exe
# BUILD_DIR=... picks another build folder of the same preset; ORLENDA_WINEPREFIX another prefix.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-native}
records=${2:-}

work=$(mktemp -d /tmp/orlbench.XXXXXX)
service_pid=""
cleanup() {
  [ -n "$service_pid" ] && kill -INT "$service_pid" 2>/dev/null && wait "$service_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

if [ "$mode" = native ]; then
  build=${BUILD_DIR:-build/native-release}
  records=${records:-1000000}
  cmake --preset native-release -B "$build" >/dev/null
  cmake --build "$build" -j 2 --target orlendalog logsend trace_bench >/dev/null
  export ORLENDA_RUN_DIR=$work/run ORLENDA_DATA_DIR=$work/data
  logdir=$ORLENDA_DATA_DIR/Morvane/Orlenda
  launcher=()
  exe=""
elif [ "$mode" = wine ]; then
  build=${BUILD_DIR:-build/mingw}
  records=${records:-200000}
  cmake --preset mingw -B "$build" >/dev/null
  cmake --build "$build" -j 2 --target orlendalog logsend >/dev/null
  export ORLENDA_WINEPREFIX=${ORLENDA_WINEPREFIX:-$PWD/build/wineprefix} WINEPREFIX=${ORLENDA_WINEPREFIX:-$PWD/build/wineprefix}
  launcher=(scripts/wine-run.sh)
  scripts/wine-run.sh cmd /c exit 0 >/dev/null 2>&1 || true  # the prefix, on first use
  logdir=$WINEPREFIX/drive_c/ProgramData/Morvane/Orlenda
  rm -f "$logdir"/OrlendaLog*.log
  exe=.exe
else
  echo "usage: bench/log_bench.sh native|wine [RECORDS]" >&2
  exit 2
fi
bin=$build/tools

start_service() {
  # One file for the whole run: no rotation in the middle of the count.
  "${launcher[@]}" "$bin/orlendalog/orlendalog$exe" -debug -quiet -max-size 4000000000 >"$work/service.txt" 2>&1 &
  service_pid=$!
  for _ in $(seq 1 300); do grep -q "orlendalog: started" "$logdir/OrlendaLog.log" 2>/dev/null && return; sleep 0.1; done
  echo "the log service did not start" >&2
  exit 1
}

stop_service() {
  kill -INT "$service_pid"
  wait "$service_pid" 2>/dev/null || true
  service_pid=""
}

start_service
echo "== $mode: $records records from logsend into orlendalog (queue large enough for all of them)"
queue_mb=$(( records / 6000 + 16 ))
"${launcher[@]}" "$bin/logsend/logsend$exe" -count "$records" -queue-mb "$queue_mb" "bench record %d" | tr -d '\r'
for _ in $(seq 1 600); do grep -q " bench record $records\$" "$logdir/OrlendaLog.log" && break; sleep 0.1; done
echo "lines in the log file: $(grep -c ' bench record ' "$logdir/OrlendaLog.log") of $records"

if [ "$mode" = native ]; then
  echo "== in process, log service running"
  "$build/bench/trace_bench"
  stop_service
  echo "== in process, no log service"
  "$build/bench/trace_bench"
else
  stop_service
fi
