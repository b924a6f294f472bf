#!/usr/bin/env bash
# Builds everything and runs the whole test suite: the Linux build, then the
# Windows build cross-compiled with mingw-w64 and run under Wine.
# ZORV_LANES=linux (or windows) runs one lane only.
set -euo pipefail
cd "$(dirname "$0")/.."
lanes="${ZORV_LANES:-linux windows}"

if [[ " $lanes " == *" linux "* ]]; then
  scripts/deps.sh
  cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZORV_BUILD_BENCH=ON
  cmake --build build
  ctest --test-dir build --output-on-failure -j "$(nproc)"
fi
if [[ " $lanes " == *" windows "* ]]; then
  scripts/test-windows.sh
fi
