#!/usr/bin/env bash
# Runs the Windows serial test under Wine with two COM ports of the Wine prefix joined by a
# null-modem cable made of pseudo-terminals (pty_bridge.c, built here with the native compiler).
#   serial_wine_test.sh <wine-run.sh> <serial_win32_test.exe> <build folder for the bridge>
set -euo pipefail
wine_run=$1
test_exe=$2
out=$3
here=$(cd "$(dirname "$0")" && pwd)

bridge=$out/pty_bridge
if [ ! -x "$bridge" ] || [ "$here/pty_bridge.c" -nt "$bridge" ]; then
  cc -O1 -Wall -o "$bridge" "$here/pty_bridge.c"
fi

# The prefix wine-run.sh uses; it must exist before its COM links are made.
prefix=${ORLENDA_WINEPREFIX:-"$here/../../build/wineprefix"}
if [ ! -f "$prefix/system.reg" ]; then
  "$wine_run" cmd /c exit >/dev/null 2>&1 || true
fi
mkdir -p "$prefix/dosdevices"
# The Wine server takes the terminals it opens as its own: it must have ended before the bridge
# closes them (it would take the hang-up for a request to dump its state).
exec "$bridge" "$prefix/dosdevices" com41 com42 -- bash -c \
  '"$1" "$2"; status=$?; WINEPREFIX="$3" wineserver -w; exit $status' bridged "$wine_run" "$test_exe" "$prefix"
