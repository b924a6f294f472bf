#!/usr/bin/env bash
# The main job on a fresh machine: builds the engine and zorv, scans a system
# folder into a fresh store, imports the example ruleset, checks a program the
# scan found (allowed) and a freshly written one (blocked under lockdown),
# replays the example events and prints the metrics.
# Usage: scripts/demo.sh [FOLDER TO SCAN] (default /usr/bin); the store and
# its files go to ./zorv-demo.
set -euo pipefail
cd "$(dirname "$0")/.."
scan_root="${1:-/usr/bin}"
work="$PWD/zorv-demo"

scripts/deps.sh
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" >/dev/null
cmake --build build --target zorv_cli -j "$(nproc)"
zorv=build/tools/zorv

rm -rf "$work" && mkdir -p "$work"
export ZORV_DB="$work/ac.db"
step() { printf '\n== %s\n' "$*"; }

step "zorv scan $scan_root"
"$zorv" scan "$scan_root" --log "$work/engine.log"

step "zorv import examples/ruleset.json --name example-rules"
"$zorv" import examples/ruleset.json --name example-rules

known="$(find "$scan_root" -maxdepth 1 -type f -perm -u+x -print -quit)"
step "zorv check $known --lockdown   (in the inventory: allowed)"
"$zorv" check "$known" --lockdown

fresh="$work/fresh-tool"
printf '#!/bin/sh\necho "written %s"\n' "$(date +%s%N)" >"$fresh" && chmod +x "$fresh"
step "zorv check $fresh --lockdown   (written just now: blocked)"
status=0
"$zorv" check "$fresh" --lockdown || status=$?
[ "$status" -eq 1 ] || { echo "expected exit status 1 for a blocked program, got $status" >&2; exit 1; }

step "zorv replay examples/events.jsonl --out $work/decisions.jsonl --metrics"
"$zorv" replay examples/events.jsonl --out "$work/decisions.jsonl" --metrics

step "zorv replay examples/events.jsonl --lockdown --candidate examples/candidate-ruleset.json --name example-rules"
"$zorv" replay examples/events.jsonl --lockdown --candidate examples/candidate-ruleset.json --name example-rules

step "zorv db check"
"$zorv" db check

step "zorv metrics --prometheus"
"$zorv" metrics --prometheus
