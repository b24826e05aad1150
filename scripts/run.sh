#!/usr/bin/env bash
# Runs the broker with its default configuration, in the foreground: builds what it needs, puts the
# default configuration into a data folder of its own (build/demo, through the documented folder
# overrides, so no system folder is touched), starts the log service and the broker, shows a short
# orlendactl session against the loopback port, and keeps both running until Ctrl+C stops them.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset native-release >/dev/null
cmake --build --preset native-release -j "$(nproc)" --target orlenda orlendalog orlendactl loopback netprinter serial
build=$PWD/build/native-release
demo=$PWD/build/demo
export ORLENDA_DATA_DIR=$demo/data ORLENDA_RUN_DIR=$demo/run
mkdir -p "$ORLENDA_DATA_DIR" "$ORLENDA_RUN_DIR"
orlenda=$build/modules/orlenda
orlendalog=$build/tools/orlendalog/orlendalog
orlendactl=$build/tools/orlendactl/orlendactl

"$orlenda" -install >/dev/null 2>&1  # the default configuration, unless one is there already

pids=()
stop() {
  echo
  echo "stopping the broker and its log service"
  for pid in "${pids[@]}"; do kill -INT "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  exit 0
}
trap stop INT TERM

"$orlendalog" -debug -quiet >"$demo/orlendalog.out" 2>&1 &
pids+=($!)
"$orlenda" -debug >"$demo/orlenda.out" 2>&1 &
pids=($! "${pids[@]}")  # the broker stops first, so that its last lines reach the log service
for _ in $(seq 1 100); do [ -S "$ORLENDA_RUN_DIR/skein" ] && break; sleep 0.1; done
[ -S "$ORLENDA_RUN_DIR/skein" ] || { echo "the broker did not start; see $demo/orlenda.out"; stop; }

echo "The broker runs (local socket $ORLENDA_RUN_DIR/skein, TCP port 2291)."
echo "A session against the loopback port LOOP/1: open, lock, write, the echo event, unlock."
echo
"$orlendactl" open LOOP/1 register 0x70001 lock write-text "hello from orlendactl" wait 500ms unlock close || true
cat <<EOF

Try next (in another shell, with the same folders):
  export ORLENDA_DATA_DIR=$ORLENDA_DATA_DIR ORLENDA_RUN_DIR=$ORLENDA_RUN_DIR
  $orlendactl open LOOP/1 lock write-text hi unlock close
  $orlendactl --tcp 127.0.0.1 open LOOP/1 watch 0x70001 --for 10s
  $orlendactl open "" ports get LOOP
  $orlendactl --help
The broker's trace is in $ORLENDA_DATA_DIR/Morvane/Orlenda/OrlendaLog.log.
Ctrl+C stops the broker and its log service.
EOF
wait
