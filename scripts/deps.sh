#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when any is missing.
#   deps.sh          native build and tests
#   deps.sh windows  also the MinGW-w64 cross compiler and Wine
set -euo pipefail

packages=(cmake ninja-build g++ libgtest-dev googletest)
if [ "${1:-}" = windows ]; then
  packages+=(g++-mingw-w64-x86-64-posix wine64 wine)
fi

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
