#!/usr/bin/env bash
# Builds the optimised native preset and runs the benchmarks, printing their figures. Benchmarks
# measure; they never pass or fail on time, and the test suite does not run them.
#   bench.sh              XML load throughput against pugixml on a 32 MB file, SetString cost, and
#                         the parse of adversarial shapes at 1 and 8 MB (see bench/README.md)
#   bench.sh MEGABYTES    another size for the generated file
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh bench
cmake --preset native-release >/dev/null
cmake --build --preset native-release -j "$(nproc)" --target xml_bench
build/native-release/bench/xml_bench "$@"
