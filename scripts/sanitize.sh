#!/usr/bin/env bash
# Builds and runs the tests under a sanitizer, each in a build folder of its
# own so the main build is left alone. Any report fails the run.
# Usage: scripts/sanitize.sh address   the unit and library tests under ASan+UBSan (build-asan)
#        scripts/sanitize.sh thread    the concurrency, cache and lifecycle suites under TSan (build-tsan)
# ZORV_SANITIZE_CC=clang (default) or gcc chooses the compiler.
set -euo pipefail
cd "$(dirname "$0")/.."
lane="${1:?usage: scripts/sanitize.sh address|thread}"
compiler="${ZORV_SANITIZE_CC:-clang}"

case "$compiler" in
  clang) scripts/deps.sh clang libclang-rt-14-dev; cc=clang; cxx=clang++ ;;
  gcc) scripts/deps.sh; cc=gcc; cxx=g++ ;;
  *) echo "ZORV_SANITIZE_CC must be clang or gcc, not '$compiler'" >&2; exit 2 ;;
esac

case "$lane" in
  address)
    dir=build-asan
    sanitizers=address,undefined
    targets=(zorv_unit_tests zorv_abi_tests)
    suites=(-DZORV_UNIT_TEST_SUITES=)
    filter=()
    export ASAN_OPTIONS="detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_string_checks=1"
    export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
    ;;
  thread)
    dir=build-tsan
    sanitizers=thread
    targets=(zorv_unit_tests)
    suites=(-DZORV_UNIT_TEST_SUITES="ZorvConcurrency;ZorvAllowCache;ZorvDalLifecycle")
    filter=(-R '^(ZorvConcurrency|AllowCache|ZorvDalLifecycle)\.')
    export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
    ;;
  *) echo "unknown lane '$lane': address or thread" >&2; exit 2 ;;
esac

# One folder per sanitizer: a folder configured with the other compiler starts afresh.
if [ -f "$dir/CMakeCache.txt" ] && ! grep -q "^CMAKE_CXX_COMPILER:.*[/=]$cxx\$" "$dir/CMakeCache.txt"; then
  rm -rf "$dir"
fi
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DZORV_SANITIZE="$sanitizers" \
  -DZORV_BUILD_TOOLS=OFF -DZORV_BUILD_BENCH=OFF "${suites[@]}" "${launcher[@]}"
cmake --build "$dir" --parallel "$(nproc)" --target "${targets[@]}"
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" "${filter[@]}"
