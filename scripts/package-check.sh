#!/usr/bin/env bash
# Installs and packages the library the way users get it, then uses it from
# outside the tree:
#   1. a static build installed with `cmake --install` into a staging prefix;
#      tests/consumer (find_package(telvo CONFIG)) is configured against it;
#   2. a shared build (BUILD_SHARED_LIBS=ON): its exported symbols are
#      compared with tests/abi/exported_symbols.txt, its stripped size with
#      the budget in tests/abi/size_budget.txt, and `cpack` makes the Debian
#      package, whose file list and Depends are checked;
#   3. examples/host.c is built with `pkg-config --cflags --libs telvo`
#      against the unpacked package;
#   4. both programs run against the packaged tool's collector, and the
#      collector must hold their events.
#   scripts/package-check.sh            run everything
#   scripts/package-check.sh --update-symbols   rewrite the symbol list
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
scripts/deps.sh
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
jobs="$(nproc)"
werror="${TELVO_WERROR:-OFF}"
work="$root/build-package"
rm -rf "$work"
mkdir -p "$work"

say() { echo "package-check: $*"; }
die() { echo "package-check: FAILED: $*" >&2; exit 1; }

# --- 1. Static library, installed.
cmake -S . -B build-static -DTELVO_WERROR="$werror" -DTELVO_BUILD_TESTS=OFF \
  -DTELVO_BUILD_BENCH=OFF -DTELVO_BUILD_TOOLS=ON >/dev/null
cmake --build build-static -j "$jobs" --target telvo telvo_cli >/dev/null
cmake --install build-static --prefix "$work/static" >/dev/null
for f in include/telvo/telvo.h include/telvo/telvo_c.h lib/libtelvo.a bin/telvo \
         lib/cmake/telvo/telvoConfig.cmake lib/cmake/telvo/telvoConfigVersion.cmake \
         lib/cmake/telvo/telvoTargets.cmake lib/pkgconfig/telvo.pc; do
  [ -e "$work/static/$f" ] || die "cmake --install left out $f"
done
say "static install: headers, libtelvo.a, telvo, CMake package, telvo.pc"

# --- 2. Shared library: exported symbols, then the Debian package.
cmake -S . -B build-shared -DBUILD_SHARED_LIBS=ON -DTELVO_WERROR="$werror" \
  -DTELVO_BUILD_TESTS=OFF -DTELVO_BUILD_BENCH=OFF -DTELVO_BUILD_TOOLS=ON >/dev/null
cmake --build build-shared -j "$jobs" >/dev/null
lib="build-shared/src/libtelvo.so.1"
[ "$(objdump -p "$lib" | awk '/SONAME/ {print $2}')" = "libtelvo.so.1" ] || die "SONAME is not libtelvo.so.1"
# Strong symbols and the vtables and type information of the library's own
# classes; weak copies of standard templates are every C++ library's and
# are left out.
nm -D --defined-only --format=posix "$lib" |
  awk '$2 ~ /^[TDBR]$/ || ($2 == "V" && $1 ~ /^_ZT[VIS]5telvo/) {print $1}' |
  c++filt | LC_ALL=C sort -u >"$work/exported.txt"
if [ "${1:-}" = "--update-symbols" ]; then
  cp "$work/exported.txt" tests/abi/exported_symbols.txt
  say "symbol list rewritten: $(wc -l <tests/abi/exported_symbols.txt) symbols"
fi
if ! diff -u tests/abi/exported_symbols.txt "$work/exported.txt" >"$work/symbols.diff"; then
  cat "$work/symbols.diff" >&2
  die "the shared library's exports differ from tests/abi/exported_symbols.txt (+ new, - gone); \
an internal symbol needs TELVO_LOCAL or hiding, a new public one an update (--update-symbols)"
fi
if grep -vE '^(telvo::|telvo_|typeinfo for telvo::|typeinfo name for telvo::|vtable for telvo::)' \
     "$work/exported.txt" >"$work/foreign.txt"; then
  cat "$work/foreign.txt" >&2
  die "the shared library exports symbols outside the telvo namespace"
fi
say "shared library: SONAME libtelvo.so.1, $(wc -l <"$work/exported.txt") exported symbols as listed"

# The footprint: a stripped copy of the library against the budget. The
# build's own strip, so that a cross build measures its own machine code.
budget="$(grep -v '^#' tests/abi/size_budget.txt | tr -d '[:space:]' || true)"
[[ "$budget" =~ ^[0-9]+$ ]] || die "tests/abi/size_budget.txt holds no byte count"
strip_tool="$(sed -n 's/^CMAKE_STRIP:FILEPATH=//p' build-shared/CMakeCache.txt)"
"${strip_tool:-strip}" --strip-unneeded -o "$work/libtelvo.stripped.so" "$lib"
stripped="$(stat -c %s "$work/libtelvo.stripped.so")"
say "libtelvo.so stripped: $stripped bytes (budget $budget)"
[ "$stripped" -le "$budget" ] ||
  die "the stripped libtelvo.so takes $stripped bytes, over the budget of $budget bytes \
(tests/abi/size_budget.txt)"

(cd build-shared && cpack -G DEB >/dev/null)
deb="$(ls build-shared/telvo_*_*.deb | head -1)"
[ -f "$deb" ] || die "cpack made no .deb"
dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|' >"$work/deb-files.txt"
for f in /usr/include/telvo/telvo.h /usr/include/telvo/telvo_c.h /usr/include/telvo/export.h \
         /usr/bin/telvo /usr/lib/cmake/telvo/telvoConfig.cmake \
         /usr/lib/cmake/telvo/telvoConfigVersion.cmake /usr/lib/cmake/telvo/telvoTargets.cmake \
         /usr/lib/pkgconfig/telvo.pc /usr/lib/libtelvo.so.1.0.0 /usr/lib/libtelvo.so.1 \
         /usr/lib/libtelvo.so; do
  grep -qxF "$f" "$work/deb-files.txt" || die "the package lacks $f"
done
depends="$(dpkg-deb -f "$deb" Depends)"
for d in libcurl4 zlib1g nlohmann-json3-dev; do
  [[ "$depends" == *"$d"* ]] || die "the package does not depend on $d: $depends"
done
say "package $(basename "$deb"): files as expected; Depends: $depends"
dpkg-deb -x "$deb" "$work/deb"
pkgroot="$work/deb/usr"

# --- 3. The consumers.
cmake -S tests/consumer -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/static" >/dev/null
cmake --build "$work/consumer" >/dev/null
cxx_host="$work/consumer/consumer"
export PKG_CONFIG_PATH="$pkgroot/lib/pkgconfig"
flags="$(pkg-config --cflags --libs telvo)"
# shellcheck disable=SC2086
cc -std=c99 -Wall -Wextra -Werror -o "$work/consumer_c" examples/host.c $flags
c_host="$work/consumer_c"
# shellcheck disable=SC2086
cc -std=c99 -Wall -Wextra -Werror -o "$work/client_rss" bench/client_rss.c $flags
say "built the find_package consumer and, with pkg-config ($flags), the C host"

# --- 4. Against the packaged tool's collector.
export LD_LIBRARY_PATH="$pkgroot/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export TELVO_HOME="$work/home"
telvo="$pkgroot/bin/telvo"
"$telvo" collector --port 0 --data "$work/data" >"$work/collector.out" 2>"$work/collector.log" &
collector=$!
trap 'kill "$collector" 2>/dev/null || true; wait "$collector" 2>/dev/null || true' EXIT
for _ in $(seq 100); do
  grep -q "listening on" "$work/collector.out" 2>/dev/null && break
  sleep 0.1
done
base="$(sed -nE 's|.*listening on (https://127\.0\.0\.1:[0-9]+).*|\1|p' "$work/collector.out")"
[ -n "$base" ] || { cat "$work/collector.log" >&2; die "the collector did not start"; }
args=(--config-base "$base/mdrv/telvo/config/" --app demo --site lab
      --cacert "$work/data/collector-cert.pem" --timeout 20)
timeout 60 "$cxx_host" "${args[@]}" >"$work/cxx.out" 2>&1 || { cat "$work/cxx.out" >&2; die "the find_package consumer failed"; }
timeout 60 "$c_host" "${args[@]}" >"$work/c.out" 2>&1 || { cat "$work/c.out" >&2; die "the pkg-config consumer failed"; }
# The C host must have used the packaged shared library.
# (ldd's output is taken whole: grep -q leaving early would fail the pipe.)
loaded="$(ldd "$c_host")"
[[ "$loaded" == *"$pkgroot/lib/libtelvo.so.1"* ]] || die "the C host did not load the packaged libtelvo"

"$telvo" events --json --data "$work/data" >"$work/events.json"
count() { jq --arg type "$1" '[.events[] | select(.eventType == $type)] | length' "$work/events.json"; }
[ "$(count page_view)" = 3 ] || die "the find_package consumer's page_view events did not arrive"
[ "$(count stop)" = 1 ] || die "the find_package consumer's last event did not arrive"
[ "$(count c_start)" = 1 ] && [ "$(count c_tick)" = 1 ] || die "the C host's events did not arrive"
say "both consumers' events arrived at the collector"
rss="$(timeout 60 "$work/client_rss" "${args[@]:0:8}")" || die "client_rss failed"
say "resident memory: $rss (KiB)"
say "ok"
