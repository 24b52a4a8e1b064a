#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) in build-fuzz/ and
# runs each one: first over its kept regression inputs, then for SECONDS
# (default 30) over a copy of its seed corpus. A crash fails the run; its
# input is copied into tests/fuzz/regressions/<target>/ to be kept.
#   scripts/fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
# ccache (when installed) serves any checkout of the tree, wherever it lies.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1

seconds="${1:-30}"
shift || true
build="${TELVO_FUZZ_BUILD_DIR:-build-fuzz}"

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTELVO_FUZZ=ON \
  -DTELVO_BUILD_TESTS=OFF -DTELVO_BUILD_TOOLS=OFF -DTELVO_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for src in tests/fuzz/*_fuzz.cc; do
    name=$(basename "$src" _fuzz.cc)
    targets+=("$name")
  done
fi

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
status=0
for name in "${targets[@]}"; do
  program="$build/tests/fuzz/telvo_fuzz_$name"
  regressions="tests/fuzz/regressions/$name"
  work="$build/corpus/$name"
  crashes="$build/crashes/$name"
  rm -rf "$work" "$crashes"
  mkdir -p "$work" "$crashes"
  cp tests/fuzz/corpus/"$name"/* "$work"/ 2>/dev/null || true
  if [ -d "$regressions" ] && [ -n "$(ls -A "$regressions")" ]; then
    echo "fuzz $name: regression inputs"
    "$program" -rss_limit_mb=2048 "$regressions"/* || { status=1; continue; }
  fi
  echo "fuzz $name: $seconds s"
  if ! "$program" -max_total_time="$seconds" -rss_limit_mb=2048 -max_len=65536 \
      -timeout=10 -artifact_prefix="$crashes/" -print_final_stats=1 "$work" 2>"$build/$name.log"; then
    tail -40 "$build/$name.log"
    mkdir -p "$regressions"
    cp "$crashes"/* "$regressions"/ 2>/dev/null || true
    echo "fuzz $name: FAILED; the input is kept in $regressions" >&2
    status=1
  else
    grep -E "stat::number_of_executed_units|Done" "$build/$name.log" | tail -1 || true
  fi
done
exit $status
