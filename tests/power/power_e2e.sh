#!/usr/bin/env bash
# The suspend guard of the Windows build under Wine: a running `orlenda -debug` and power_probe,
# which plays the system's power broadcasts at its window while holding a port's lock.
#   power_e2e.sh WINE_RUN ORLENDA_EXE POWER_PROBE_EXE CONFIG_DIR
set -uo pipefail
wine_run=$1 orlenda=$2 probe=$3 config=$4
export WINEPREFIX=${ORLENDA_WINEPREFIX:-"$(cd "$(dirname "$wine_run")/.." && pwd)/build/wineprefix"}
export ORLENDA_WINEPREFIX=$WINEPREFIX
work=$(mktemp -d /tmp/orlpower.XXXXXX)
broker=""
cleanup() {
  [ -n "$broker" ] && kill "$broker" 2>/dev/null
  WINEPREFIX=$WINEPREFIX wineserver -k 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

# The default configuration, put in place as -install would (without registering a service that
# every later start of the prefix would start too).
"$wine_run" cmd /c exit 0 >/dev/null 2>&1  # creates the prefix if this is its first process
data=$WINEPREFIX/drive_c/ProgramData/Morvane/Orlenda
mkdir -p "$data"
cp "$config/Orlenda.configuration" "$config/Orlenda.properties" "$data/"
"$wine_run" "$orlenda" -debug >"$work/broker.txt" 2>&1 &
broker=$!
if "$wine_run" "$probe" | tee "$work/probe.txt" | tr -d '\r'; then
  echo "power_e2e: passed"
  exit 0
fi
echo "power_e2e: FAILED"
exit 1
