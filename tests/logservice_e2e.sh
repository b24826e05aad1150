#!/usr/bin/env bash
# End to end: the real log service and real writers, as separate processes.
#   logservice_e2e.sh RUNNER ORLENDALOG LOGSEND
# RUNNER is "native" or the Wine wrapper for the Windows build.
set -uo pipefail
runner=$1 orlendalog=$2 logsend=$3

work=$(mktemp -d /tmp/orle2e.XXXXXX)
service_pid=""
cleanup() {
  [ -n "$service_pid" ] && kill -KILL "$service_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; echo "--- service output (end)"; tail -n 40 "$work/out.txt" 2>/dev/null; echo "--- log file (end)"; tail -n 40 "$logdir/OrlendaLog.log" 2>/dev/null; exit 1; }

# Runs a program of the build under test, in the foreground or (with &) as its own process.
run() { "${launcher[@]}" "$@"; }

if [ "$runner" = native ]; then
  export ORLENDA_RUN_DIR=$work/run ORLENDA_DATA_DIR=$work/data
  logdir=$ORLENDA_DATA_DIR/Morvane/Orlenda
  launcher=()
else
  export WINEPREFIX=${ORLENDA_WINEPREFIX:-"$(cd "$(dirname "$runner")/.." && pwd)/build/wineprefix"}
  export ORLENDA_WINEPREFIX=$WINEPREFIX
  launcher=("$runner")
  run cmd /c exit 0 >/dev/null 2>&1  # creates the prefix if this is the first Windows process
  logdir=$WINEPREFIX/drive_c/ProgramData/Morvane/Orlenda
  rm -f "$logdir"/OrlendaLog*.log
fi

# 1. No log service: nothing gets through, and the writer says so.
out=$(run "$logsend" -count 2 "nobody hears %d" | tr -d '\r')
[ $? -ne 0 ] || true
echo "$out" | grep -q "0 of 2 records sent" || fail "records sent with no log service: $out"

# 2. A writer that starts before the service and keeps trying.
"${launcher[@]}" "$logsend" -retry-ms 60000 "late writer" >"$work/late.txt" 2>&1 &
late_pid=$!
sleep 1

# 3. The service starts; the late writer gets through and reports what it lost.
"${launcher[@]}" "$orlendalog" -debug -max-size 100000000 >"$work/out.txt" 2>&1 &
service_pid=$!
# A loaded machine can take its time to start a Windows process: a minute, as for the broker.
for _ in $(seq 1 600); do
  grep -q "orlendalog: started" "$work/out.txt" 2>/dev/null && break
  kill -0 "$service_pid" 2>/dev/null || break
  sleep 0.1
done
if ! grep -q "orlendalog: started" "$work/out.txt"; then
  kill -0 "$service_pid" 2>/dev/null || { wait "$service_pid"; fail "the log service ended (exit code $?) before it started"; }
  fail "the log service did not start within a minute"
fi
wait "$late_pid" || fail "the late writer never got through: $(cat "$work/late.txt")"

# 4. Records with data, from another process.
run "$logsend" -count 5 -data 00ff7f "record %d" >/dev/null || fail "records were not sent"

# 4b. Records still queued when the writer's process exits are delivered on its way out, in order.
run "$logsend" -count 20000 -exit-now "exit %d" >/dev/null || fail "the exiting writer failed"

# 5. A second log service refuses to start while the first runs.
run "$orlendalog" -debug >"$work/second.txt" 2>&1 && fail "a second log service started"
grep -q "already running" "$work/second.txt" || fail "the second log service did not say why: $(cat "$work/second.txt")"

# 6. Every record is one line in the file, as it arrived.
for _ in $(seq 1 100); do grep -q "record 5" "$logdir/OrlendaLog.log" 2>/dev/null && break; sleep 0.1; done
file=$logdir/OrlendaLog.log
grep -Eq '^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3} pid [0-9]+ tid [0-9]+ L4 late writer$' "$file" \
  || fail "no line for the late writer"
grep -Eq ' L0 [0-9]+ messages lost$' "$file" || fail "no lost-messages report"
for n in 1 2 3 4 5; do
  grep -Eq " L4 record $n \[3 bytes: 00 ff 7f\]$" "$file" || fail "record $n missing"
done
[ "$(grep -c ' record [0-9]' "$file")" -eq 5 ] || fail "records doubled"
for _ in $(seq 1 100); do grep -q " L4 exit 20000$" "$file" && break; sleep 0.1; done
[ "$(sed -n 's/.* L4 exit \([0-9]*\)$/\1/p' "$file" | tr '\n' ' ')" = "$(seq -s ' ' 1 20000) " ] \
  || fail "records queued at exit were lost or reordered: $(grep -c ' L4 exit ' "$file") of 20000 arrived"
if [ "$runner" = native ]; then
  grep -q " L4 record 5 \[3 bytes: 00 ff 7f\]" "$work/out.txt" || fail "records not shown on the console"
fi

# 7. The service stops on request and lets go of its presence.
kill -INT "$service_pid"
for _ in $(seq 1 100); do kill -0 "$service_pid" 2>/dev/null || break; sleep 0.1; done
kill -0 "$service_pid" 2>/dev/null && fail "the log service did not stop"
service_pid=""
out=$(run "$logsend" "after stop" | tr -d '\r')
echo "$out" | grep -q "0 of 1 records sent" || fail "a record was sent after the service stopped: $out"
echo "log service end to end: ok"
