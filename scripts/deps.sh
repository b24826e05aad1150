#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when any is missing.
#   deps.sh          native build and tests
#   deps.sh windows  also the MinGW-w64 cross compiler and Wine
#   deps.sh fuzz     also clang with libFuzzer (scripts/fuzz.sh)
#   deps.sh bench    also pugixml, the benchmark's point of comparison (scripts/bench.sh)
# Several of these may be named at once.
set -euo pipefail

packages=(cmake ninja-build g++ libgtest-dev googletest)
for extra in "$@"; do
  case "$extra" in
    windows) packages+=(g++-mingw-w64-x86-64-posix wine64 wine) ;;
    # libclang-rt-14-dev holds libFuzzer and the sanitizer runtimes of bookworm's clang 14.
    fuzz) packages+=(clang libclang-rt-14-dev) ;;
    bench) packages+=(libpugixml-dev) ;;
    "") ;;
    *) echo "deps.sh: unknown set '$extra'" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
