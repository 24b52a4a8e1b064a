#!/usr/bin/env bash
# Builds the library, tool, tests and benchmarks, and runs the whole test suite.
#   scripts/test.sh                  plain build in build/
#   TELVO_SANITIZE=address scripts/test.sh   ASan+UBSan build in build-address/
#   TELVO_SANITIZE=thread  scripts/test.sh   TSan build in build-thread/
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
# ccache (when installed) serves any checkout of the tree, wherever it lies.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1

sanitize="${TELVO_SANITIZE:-}"
build="${TELVO_BUILD_DIR:-build${sanitize:+-$sanitize}}"
jobs="$(nproc)"

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTELVO_SANITIZE="$sanitize" -DTELVO_WERROR="${TELVO_WERROR:-OFF}" \
  -DTELVO_BUILD_TESTS=ON -DTELVO_BUILD_TOOLS=ON \
  -DTELVO_BUILD_BENCH="$([ -z "$sanitize" ] && echo ON || echo OFF)" >/dev/null
cmake --build "$build" -j "$jobs"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp}"
ctest --test-dir "$build" --output-on-failure -j "$jobs" --timeout 300
