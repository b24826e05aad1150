#!/usr/bin/env bash
# Printers through the running broker, end to end, on the default configuration: ports added with
# orlendactl on the NAVPRT stack open on the module their PortType names; on the network printer
# module, a receipt written by a client reaches the fake printer byte for byte, a status request
# comes back as a data event, and a power cycle of the printer in the middle of the session shows
# as offline and online events, after which the next write arrives.
#   netprinter_e2e.sh RUNNER ORLENDA ORLENDACTL TCP_ORLENDACTL FAKE_PRINTER
# RUNNER is "native" or the Wine wrapper for the Windows build. ORLENDACTL is the build's own client
# (over the local pipe), TCP_ORLENDACTL a native one (over TCP), FAKE_PRINTER the native fake
# printer program. The broker's TCP port and the printer's are free ports, so that the test can run
# beside others.
set -uo pipefail
runner=$1 orlenda=$2 ctl=$3 tcp_ctl=$4 fake_printer=$5
config=$(cd "$(dirname "$0")/../../config" && pwd)

work=$(mktemp -d /tmp/orlprn.XXXXXX)
broker="" printer="" session=""
cleanup() {
  for pid in $session $broker $printer; do kill "$pid" 2>/dev/null; done
  [ "$runner" != native ] && wineserver -k 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  for f in session.txt broker.txt printer.txt; do echo "--- $f (end)"; tail -n 40 "$work/$f" 2>/dev/null | tr -d '\r'; done
  exit 1
}
# Waits up to $1 seconds for the command after it to succeed.
await() {
  local tenths=$(($1 * 10))
  shift
  for _ in $(seq 1 "$tenths"); do "$@" && return 0; sleep 0.1; done
  "$@"
}
[ -x "$fake_printer" ] || fail "the native fake printer ($fake_printer) is not built: build the native preset first"
[ -x "$tcp_ctl" ] || fail "the native orlendactl ($tcp_ctl) is not built: build the native preset first"
cd "$work"  # files are named relative to it: Wine's programs see it as their current folder too

broker_port=$("$fake_printer" --free-port) || fail "no free port for the broker"
"$fake_printer" --received "$work/received.bin" --for 200 >"$work/printer.txt" 2>&1 &
printer=$!
await 10 grep -q "listening on" "$work/printer.txt" || fail "the fake printer did not start"
printer_port=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/printer.txt")

# A fresh install's data: the default configuration, with a TCP port of this test's own.
if [ "$runner" = native ]; then
  export ORLENDA_RUN_DIR=$work/run ORLENDA_DATA_DIR=$work/data
  mkdir -p "$ORLENDA_RUN_DIR"
  data=$ORLENDA_DATA_DIR/Morvane/Orlenda
  launcher=()
  "$orlenda" -install >"$work/install.txt" 2>&1 || fail "orlenda -install: $(cat "$work/install.txt")"
else
  export WINEPREFIX=${ORLENDA_WINEPREFIX:-"$(cd "$(dirname "$runner")/.." && pwd)/build/wineprefix"}
  export ORLENDA_WINEPREFIX=$WINEPREFIX
  launcher=("$runner")
  "$runner" cmd /c exit 0 >/dev/null 2>&1  # creates the prefix if this is its first process
  # As -install would put it in place, without registering a service that every later start of
  # the prefix would start too.
  data=$WINEPREFIX/drive_c/ProgramData/Morvane/Orlenda
  mkdir -p "$data"
  cp "$config/Orlenda.configuration" "$config/Orlenda.properties" "$data/"
fi
sed -i "s|<xmlroot>|<xmlroot><property id=\"TCP_COMMUNICATION_PORT\" type=\"number\" value=\"$broker_port\"/>|" \
  "$data/Orlenda.properties"
grep -q '<type value="NAVPRT">' "$data/Orlenda.configuration" || fail "the default configuration has no NAVPRT stack"

"${launcher[@]}" "$orlenda" -debug >"$work/broker.txt" 2>&1 &
broker=$!
# The build's own client over the local pipe, and the native one over TCP; output without CRs.
local_ctl() {
  "${launcher[@]}" "$ctl" "$@" 2>&1 | tr -d '\r'
  return "${PIPESTATUS[0]}"
}
remote_ctl() { "$tcp_ctl" --tcp "127.0.0.1:$broker_port" "$@" 2>&1; }
await 60 remote_ctl --timeout 1s open "" close >/dev/null || fail "the broker does not serve TCP port $broker_port"

# 1. Ports added with orlendactl only; the path given holds NAVPRT, so it is used as it stands.
#    Natively through the local pipe, under Wine through TCP (so both transports serve each build).
add_ctl=local_ctl
[ "$runner" != native ] && add_ctl=remote_ctl
out=$($add_ctl open "" lock \
  add NETPRINTER "Receipt printer" ConfigurationPath=NAVPRT/1 NETPRINTER_HOST=127.0.0.1 \
    "NETPRINTER_PORT=#$printer_port" NETPRINTER_RECONNECT_INTERVAL=#200 \
  add SERIAL "Kitchen printer" ConfigurationPath=NAVPRT/2 SERIAL_DEVICE=/dev/orlenda-absent-tty \
  add LOOPBACK "Try-out" ConfigurationPath=NAVPRT/3 \
  add NETPRINTER "No host" ConfigurationPath=NAVPRT/4 \
  add SCANNER "No such module" ConfigurationPath=NAVPRT/5 \
  unlock close) || fail "adding the ports: $out"
for n in 1 2 3 4 5; do echo "$out" | grep -qx "  NAVPRT/$n" || fail "add did not answer NAVPRT/$n: $out"; done

# 2. Each PortType opens its own module: the loopback echoes, the serial port opens with its device
#    absent (offline: state 0, a write refused) where the network module would have refused the
#    missing host, a network printer without a host is refused, and a type no entry names finds
#    no component.
out=$(local_ctl --keep-going \
  open NAVPRT/3 register 0x70001 lock write-text chose-the-loopback wait 1s close \
  open NAVPRT/2 ioctl 0x40080001 lock write-text x close \
  open NAVPRT/4 open NAVPRT/5)
expect() { echo "$out" | grep -q -- "$1" || fail "$2: $out"; }
expect "chose-the-loopback" "NAVPRT/3 (LOOPBACK) did not echo"
expect "^ioctl 0x40080001: SKR_SUCCESS" "NAVPRT/2 (SERIAL) did not answer its state"
expect "^  0000  00 00 00 00 " "NAVPRT/2 (SERIAL) is not offline"
expect "^write-text x: .*0x80080001" "a write to NAVPRT/2 (SERIAL, absent) was not refused as offline"
expect "^open NAVPRT/4: SKR_INVALID_PARAMETER" "NAVPRT/4 (NETPRINTER without a host) opened"
expect "^open NAVPRT/5: .*0x80000007" "NAVPRT/5 (no module of its type) did not fail for want of components"

# 3. A receipt (every byte value, between the usual initialise and cut) and a status request, then
#    a power cycle of the printer, then one more write, in one session on the network printer.
{
  printf '\x1b@Orlenda test receipt\n'
  for i in $(seq 0 255); do printf "\\$(printf %03o "$i")"; done
  printf '\nTOTAL 12.50\n\x1dV\x00'
} >receipt.bin
printf 'after the power cycle\n' >after.bin
session_args=(open NAVPRT/1 register 0x20080001 register 0x00080002 register 0x00080003 lock
  wait 2s ioctl 0x40080001 write-file receipt.bin write-hex "10 04 01" wait 10s
  write-file after.bin wait 1s ioctl 0x40080001 unlock close)
if [ "$runner" = native ]; then
  remote_ctl "${session_args[@]}" >"$work/session.txt" 2>&1 &
else
  "${launcher[@]}" "$ctl" "${session_args[@]}" >"$work/session.txt" 2>&1 &
fi
session=$!
session_has() { tr -d '\r' <"$work/session.txt" | grep -q -- "$1"; }
size() { stat -c %s "$1" 2>/dev/null || echo 0; }
holds() { [ "$(size received.bin)" -ge "$1" ]; }

await 20 holds $(($(size receipt.bin) + 3)) || fail "the printer did not receive the receipt"
cat receipt.bin <(printf '\x10\x04\x01') | cmp -s - received.bin || fail "the printer received other bytes: $(od -An -tx1 received.bin | head -5)"
session_has "^ioctl 0x40080001: SKR_SUCCESS" || fail "the state request failed"
tr -d '\r' <"$work/session.txt" | grep -A1 "^ioctl 0x40080001" | grep -q "^  0000  01 00 00 00 " ||
  fail "the port was not online when the receipt was written"
await 10 session_has "^  0000  12 " || fail "no status byte came back as a data event"
tr -d '\r' <"$work/session.txt" | grep -B1 "^  0000  12 " | grep -q "^event 0x20080001, 1 bytes" ||
  fail "the status byte did not come as SK_EVENT_DEVICE_DATA"

kill -USR1 "$printer"
await 10 grep -qx "off" printer.txt || fail "the printer did not switch off"
await 10 session_has "^event 0x00080003" || fail "no offline event after the printer went off"
kill -USR2 "$printer"
await 10 grep -qx "on" printer.txt || fail "the printer did not switch on again"
online_after_offline() { tr -d '\r' <"$work/session.txt" | sed -n '/^event 0x00080003/,$p' | grep -q "^event 0x00080002"; }
await 10 online_after_offline || fail "no online event after the printer came back"
# The data of the first event $1 in the session, a UTF-16 text, as UTF-8.
event_text() {
  tr -d '\r' <"$work/session.txt" |
    awk -v e="^event $1" '$0 ~ e { on = 1; next } on && /^  [0-9a-f][0-9a-f][0-9a-f][0-9a-f]  / { print substr($0, 8, 48); next } on { exit }' |
    tr -d ' \n' | sed 's/../\\x&/g' | xargs -0 printf '%b' | iconv -f UTF-16LE -t UTF-8 | tr -d '\0'
}
reason=$(event_text 0x00080003)
[[ "$reason" == "127.0.0.1:$printer_port: "* ]] || fail "the offline event does not name the printer: $reason"
[ "$(event_text 0x00080002)" = "127.0.0.1:$printer_port" ] || fail "the online event does not name the printer"

await 40 eval '! kill -0 "$session" 2>/dev/null' || fail "the session did not end"
wait "$session"
status=$?
session=""
session_has "^write-file after.bin: SKR_SUCCESS" || fail "the write after the power cycle failed"
[ "$status" -eq 0 ] || fail "a step of the session failed"
tr -d '\r' <"$work/session.txt" | grep -A1 "^ioctl 0x40080001" | tail -n 1 | grep -q "^  0000  01 00 00 00 " ||
  fail "the port is not online at the end of the session"
cat receipt.bin <(printf '\x10\x04\x01') after.bin | cmp -s - received.bin ||
  fail "the printer did not receive the write after the power cycle exactly"
[ "$(grep -c '^connection' printer.txt)" -eq 2 ] || fail "the broker did not connect exactly twice: $(cat printer.txt)"
# 4. The broker stops on request (its console run's exit status is the thread's last error, so
#    not looked at), and a sanitizer build has nothing to report.
kill -INT "$broker"
await 30 eval '! kill -0 "$broker" 2>/dev/null' || fail "the broker did not stop"
broker=""
grep -q "Sanitizer" "$work/broker.txt" && fail "the broker's sanitizer report"
echo "netprinter_e2e ($([ "$runner" = native ] && echo native || echo Wine)): passed"
