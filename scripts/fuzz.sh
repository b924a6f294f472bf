#!/usr/bin/env bash
# Runs the fuzz targets (libFuzzer, clang, with ASan+UBSan) for as long as
# asked, each growing its own corpus in build-fuzz/corpus from the seeds in
# fuzz/corpus, then replays those corpora through a coverage build
# (build-fuzz-cov) and prints the engine's line coverage.
# Usage: scripts/fuzz.sh [seconds per target, default 300] [target ...]
#   targets: RulesetImport Event StoreItem EventLine (default: all)
#   0 seconds only replays the corpora for the coverage report.
# ZORV_FUZZ_COVERAGE=0 skips the coverage build and report.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-300}"
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(RulesetImport Event StoreItem EventLine)
coverage="${ZORV_FUZZ_COVERAGE:-1}"

scripts/deps.sh clang libclang-rt-14-dev llvm
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
configure() {  # folder, extra options...
  local dir="$1"
  shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DZORV_BUILD_FUZZ=ON -DZORV_BUILD_TESTS=OFF -DZORV_BUILD_TOOLS=OFF \
    -DZORV_BUILD_BENCH=OFF "${launcher[@]}" "$@" >/dev/null
  cmake --build "$dir" --parallel "$(nproc)" --target "${targets[@]/%/_fuzz}"
}

# Each run commits to a store; in memory the fsyncs no longer set the pace.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
  export TMPDIR=/dev/shm
fi

configure build-fuzz -DZORV_SANITIZE=address,undefined
export ASAN_OPTIONS="detect_leaks=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

failed=()
for target in "${targets[@]}"; do
  [ "$seconds" -gt 0 ] || break
  corpus="build-fuzz/corpus/$target"
  mkdir -p "$corpus" build-fuzz/artifacts
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
           -artifact_prefix="build-fuzz/artifacts/$target-")
  [ -f "fuzz/$target.dict" ] && options+=(-dict="fuzz/$target.dict")
  [ "$target" = RulesetImport ] && options+=(-dict=fuzz/ruleset.dict)
  echo "== $target: ${seconds}s on $corpus and fuzz/corpus/$target"
  log="build-fuzz/$target.log"
  if "build-fuzz/fuzz/${target}_fuzz" "${options[@]}" "$corpus" "fuzz/corpus/$target" >"$log" 2>&1; then
    grep -E '^(Done|stat::number_of_executed_units|stat::peak_rss_mb|stat::new_units_added)|cov: .* (DONE|INITED)' "$log" || true
  else
    failed+=("$target")
    echo "!! $target failed; the input is in build-fuzz/artifacts, the log in $log:"
    grep -v '^#' "$log" | tail -40
  fi
done

if [ "$coverage" != 0 ]; then
  configure build-fuzz-cov -DZORV_FUZZ_COVERAGE=ON -DZORV_SANITIZE=
  rm -f build-fuzz-cov/*.profraw
  objects=()
  for target in "${targets[@]}"; do
    binary="build-fuzz-cov/fuzz/${target}_fuzz"
    # Replaying the corpus runs every input once; a finding was already reported above.
    LLVM_PROFILE_FILE="build-fuzz-cov/$target.profraw" "$binary" -runs=0 -timeout=10 -artifact_prefix=build-fuzz-cov/ \
      "build-fuzz/corpus/$target" "fuzz/corpus/$target" >"build-fuzz-cov/$target.log" 2>&1 || true
    objects+=(-object "$binary")
  done
  llvm-profdata merge -sparse build-fuzz-cov/*.profraw -o build-fuzz-cov/fuzz.profdata
  echo "== Line coverage of the engine (src/zorv) and the hosts' code (tools/host), corpora of: ${targets[*]}"
  llvm-cov report "${objects[@]:1}" -instr-profile=build-fuzz-cov/fuzz.profdata \
    -ignore-filename-regex='(^/usr/|fuzz/)' "$PWD/src/zorv" "$PWD/tools/host" | sed 's|'"$PWD"'/||'
fi

if [ ${#failed[@]} -gt 0 ]; then
  echo "Fuzz targets with findings: ${failed[*]}"
  exit 1
fi
echo "Fuzz targets ran clean: ${targets[*]}"
