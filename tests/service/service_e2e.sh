#!/usr/bin/env bash
# The Windows build under Wine's service manager, on a fresh prefix: both services install, the
# broker starts (its log service first) and serves a native client over TCP and a Windows client
# over the named pipe, its trace reaches the log service's file, it stops with exit code 0, a second
# install fails, a broken configuration ends a start in stopped with exit code 3, and remove takes
# the service and its data files away.
#   service_e2e.sh WINE_RUN ORLENDA_EXE ORLENDALOG_EXE ORLENDACTL_EXE NATIVE_ORLENDACTL
set -uo pipefail
wine_run=$1 orlenda=$2 orlendalog=$3 ctl=$4 native_ctl=$5
WINEPREFIX=$(mktemp -d /tmp/orlsvc.XXXXXX)
export WINEPREFIX ORLENDA_WINEPREFIX=$WINEPREFIX WINEDEBUG=-all
keeper=""
cleanup() {
  [ -n "$keeper" ] && kill "$keeper" 2>/dev/null
  wineserver -k 2>/dev/null
  rm -rf "$WINEPREFIX"
}
trap cleanup EXIT
data=$WINEPREFIX/drive_c/ProgramData/Morvane/Orlenda

fail() {
  echo "FAIL: $*"
  [ -n "$keeper" ] && ! kill -0 "$keeper" 2>/dev/null && echo "(the process that keeps Wine's services up had ended)"
  sleep 0.3  # the log service writes its file every 100 ms
  echo "--- log service file (end)"
  tail -n 30 "$data/OrlendaLog.log" 2>/dev/null
  exit 1
}
# A program of the build (or Wine's own sc) in the prefix; its output without carriage returns.
run() {
  "$wine_run" "$@" 2>&1 | tr -d '\r'
  return "${PIPESTATUS[0]}"
}
field() { run sc query "$1" | awk -v f="$2" '$1 == f { print $3 }'; }
await_state() {  # service, state number, seconds
  for _ in $(seq 1 $(($3 * 10))); do
    [ "$(field "$1" STATE)" = "$2" ] && return 0
    sleep 0.1
  done
  return 1
}

[ -x "$native_ctl" ] || fail "the native orlendactl ($native_ctl) is not built: build the native preset first"
run cmd /c exit 0 >/dev/null  # makes the fresh prefix (about ten seconds)
# Wine ends its services with the last ordinary process of the prefix: one waits meanwhile, for a
# line on a pipe that this script holds open and never writes (it ends when the script does).
mkfifo "$WINEPREFIX/keeper"
"$wine_run" cmd /c "set /p line=" <"$WINEPREFIX/keeper" >/dev/null 2>&1 &
keeper=$!
exec 3>"$WINEPREFIX/keeper"

run "$orlendalog" -install || fail "orlendalog -install"
run "$orlenda" -install || fail "orlenda -install"
[ -f "$data/Orlenda.configuration" ] || fail "install put no default configuration in place"

run "$orlenda" -start || fail "orlenda -start did not bring the broker to running"
[ "$(field OrlendaLog STATE)" = 4 ] || fail "OrlendaLog is not running: $(run sc query OrlendaLog)"
[ "$(field Orlenda STATE)" = 4 ] || fail "Orlenda is not running: $(run sc query Orlenda)"

session=(open LOOP/1 register 0x70001 lock write-text)
out=$("$native_ctl" --tcp 127.0.0.1 "${session[@]}" hello-over-tcp wait 1s unlock close 2>&1) ||
  fail "the native client over TCP: $out"
echo "$out" | grep -q "hello-over-tcp" || fail "no echo event over TCP: $out"
out=$(run "$ctl" "${session[@]}" hello-over-the-pipe wait 1s unlock close) || fail "the Windows client over the pipe: $out"
echo "$out" | grep -q "hello-over-the-pipe" || fail "no echo event over the pipe: $out"

# The broker's trace of those writes, in the log service's file (written out every 100 ms).
for _ in $(seq 1 50); do grep -q "::Write(" "$data/OrlendaLog.log" 2>/dev/null && break; sleep 0.1; done
grep -q "::Write(" "$data/OrlendaLog.log" || fail "the broker's trace is not in the log file"

run sc stop Orlenda >/dev/null
await_state Orlenda 1 30 || fail "Orlenda did not stop: $(run sc query Orlenda)"
[ "$(field Orlenda WIN32_EXIT_CODE)" = 0 ] || fail "Orlenda stopped with an error: $(run sc query Orlenda)"

# Exit codes reach Linux cut to 8 bits: 1073 (the service exists) as 49, 1077 as 53.
out=$(run "$orlenda" -install)
code=$?
[ $code -eq $((1073 % 256)) ] || fail "a second install did not fail with the existing-service error (exit $code): $out"

# A configuration other users may write is refused (Wine shows the Unix mode as the file's DACL).
chmod o+w "$data/Orlenda.configuration"
run "$orlenda" -start >/dev/null
[ $? -eq $((1077 % 256)) ] || fail "a start with a configuration others may write did not fail"
[ "$(field Orlenda WIN32_EXIT_CODE)" = 3 ] || fail "the refused start's exit code is not 3: $(run sc query Orlenda)"
grep -q "may be changed by users other than the administrators" "$data/OrlendaLog.log" ||
  fail "the refusal is not in the trace"
chmod o-w "$data/Orlenda.configuration"

cp "$data/Orlenda.configuration" "$WINEPREFIX/good.configuration"
printf '<xmlroot><type value="components">' >"$data/Orlenda.configuration"
run "$orlenda" -start >/dev/null
[ $? -eq $((1077 % 256)) ] || fail "a start with a broken configuration did not fail"
await_state Orlenda 1 30 || fail "Orlenda is not stopped after the failed start"
[ "$(field Orlenda WIN32_EXIT_CODE)" = 3 ] || fail "the failed start's exit code is not 3: $(run sc query Orlenda)"

run "$orlenda" -remove >/dev/null
run sc query Orlenda | grep -q "STATE" && fail "the service is still there after remove"
[ ! -e "$data/Orlenda.configuration" ] && [ ! -e "$data/Orlenda.properties" ] || fail "remove left data files"
run "$orlendalog" -remove >/dev/null
echo "service_e2e: passed"
