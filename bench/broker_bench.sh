#!/usr/bin/env bash
# Builds the optimised native preset and runs the broker benchmark (bench/README.md, "Broker"):
# the broker in this process beside plain echo servers of the same transports.
#   broker_bench.sh                          the in-process broker, 2 s per figure, 10 s idle
#   broker_bench.sh --external HOST:PORT [--port NAME] [--pid PID]
#                                            a broker already running there (e.g. orlenda -debug
#                                            under Wine), over TCP
# Other arguments go to the benchmark as they are (--seconds S, --idle-seconds S). The build folder
# is $BUILD_DIR, build/native-release by default.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${BUILD_DIR:-build/native-release}
scripts/deps.sh bench
cmake --preset native-release -B "$build" >/dev/null
cmake --build "$build" -j 2 --target broker_bench
"$build/bench/broker_bench" "$@"
