#!/usr/bin/env bash
# Runs a Windows executable under Wine with a prefix of the build tree's own (never ~/.wine),
# quietly. The first call creates the prefix (about ten seconds).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
export WINEPREFIX=${ORLENDA_WINEPREFIX:-"$here/../build/wineprefix"}
export WINEDEBUG=-all
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-"mscoree,mshtml="}
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$WINEPREFIX"
  wineboot -i >/dev/null 2>&1 || true
  wineserver -w || true
fi
# No display here: Wine's null graphics driver still gives windows (the broker's hidden power
# window) without one. Once per prefix.
if [ ! -f "$WINEPREFIX/.orlenda-null-graphics" ]; then
  wine reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1 &&
    touch "$WINEPREFIX/.orlenda-null-graphics"
fi
exec wine "$@"
