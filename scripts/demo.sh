#!/usr/bin/env bash
# Builds the library and the zorv host, then runs `zorv demo` in ./zorv-demo.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build --target zorv_cli
build/tools/zorv demo "${1:-zorv-demo}"
