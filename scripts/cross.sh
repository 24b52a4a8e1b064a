#!/usr/bin/env bash
# Builds the library, the tool, the examples and the whole test suite for a
# device architecture with Debian's cross compiler, runs the suite under
# qemu-user (loopback HTTPS tests included), then makes the Debian package
# for that architecture and builds examples/host.c against it the way a
# device's build would (cross compiler, pkg-config into a sysroot).
#   scripts/cross.sh arm64|armhf              everything
#   scripts/cross.sh arm64|armhf --no-suite   the build and the package only
# The target's libraries come from scripts/sysroot.sh. Exits 3, with one
# line saying why, when that architecture's packages cannot be had.
set -euo pipefail
cd "$(dirname "$0")/.."
arch="${1:?usage: scripts/cross.sh arm64|armhf}"
case "$arch" in
  arm64) triple=aarch64-linux-gnu ;;
  armhf) triple=arm-linux-gnueabihf ;;
  *) echo "cross: unknown architecture $arch" >&2; exit 2 ;;
esac
say() { echo "cross $arch: $*"; }
die() { echo "cross $arch: FAILED: $*" >&2; exit 1; }

scripts/deps.sh "$arch" || {
  echo "cross $arch: packages unavailable: the cross compiler or qemu-user could not be installed" >&2
  exit 3
}
sysroot="$(scripts/sysroot.sh "$arch")"
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
build="build-$arch"
jobs="$(nproc)"

cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$triple.cmake" \
  -DTELVO_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_SHARED_LIBS=ON \
  -DTELVO_WERROR="${TELVO_WERROR:-OFF}" -DTELVO_BUILD_TESTS=ON -DTELVO_BUILD_TOOLS=ON \
  -DTELVO_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$jobs"
say "built with $triple-g++ against $sysroot"

# Emulated tests run several times slower; each gets more time, none is skipped.
if [ "${2:-}" != "--no-suite" ]; then
  ctest --test-dir "$build" --output-on-failure -j "$jobs" --timeout 600
  say "the suite passed under $(basename "$(sed -n 's/^TELVO_QEMU_PROGRAM:FILEPATH=//p' "$build/CMakeCache.txt")")"
fi

# The Debian package for this architecture.
rm -f "$build"/telvo_*.deb
(cd "$build" && cpack -G DEB >/dev/null)
deb="$(ls "$build"/telvo_*_"$arch".deb 2>/dev/null | head -1)"
[ -f "$deb" ] || die "cpack made no telvo_*_$arch.deb"
[ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || die "$deb says Architecture $(dpkg-deb -f "$deb" Architecture)"
depends="$(dpkg-deb -f "$deb" Depends)"
for d in libc6 libcurl4 zlib1g libstdc++6 libssl3 nlohmann-json3-dev; do
  [[ "$depends" == *"$d"* ]] || die "the package does not depend on $d: $depends"
done
file_type="$(dpkg-deb --fsys-tarfile "$deb" | tar -xO ./usr/lib/libtelvo.so.1.0.0 | file -b -)"
case "$arch:$file_type" in
  arm64:*aarch64*|armhf:*"ARM, EABI5"*) ;;
  *) die "the packaged libtelvo.so is not built for $arch: $file_type" ;;
esac
say "package $(basename "$deb"): Architecture $arch; Depends: $depends"

# A device's root: the target's packages with ours unpacked over them
# (hard links, so the sysroot itself stays as it is).
device="$PWD/$build/device-root"
rm -rf "$device"
cp -al "$sysroot" "$device"
dpkg -x "$deb" "$device"
export PKG_CONFIG_LIBDIR="$device/usr/lib/pkgconfig:$device/usr/lib/$triple/pkgconfig:$device/usr/share/pkgconfig"
export PKG_CONFIG_SYSROOT_DIR="$device"
flags="$(pkg-config --cflags --libs telvo)"
link_paths="-Wl,-rpath-link,$device/usr/lib/$triple -Wl,-rpath-link,$device/lib/$triple"
# shellcheck disable=SC2086
"$triple-gcc" -std=c99 -Wall -Wextra -Werror -o "$build/host_c" examples/host.c $flags $link_paths
# shellcheck disable=SC2086
"$triple-gcc" -std=c99 -Wall -Wextra -Werror -o "$build/client_rss" bench/client_rss.c $flags $link_paths
say "built examples/host.c against the package with $triple-gcc and pkg-config ($flags)"

# Both run on the emulated device against the packaged tool's collector.
qemu="$(sed -n 's/^TELVO_QEMU_PROGRAM:FILEPATH=//p' "$build/CMakeCache.txt")"
on_device=("$qemu" -L "$device"
  -E "LD_LIBRARY_PATH=$device/usr/lib:$device/lib/$triple:$device/usr/lib/$triple:/usr/$triple/lib")
work="$build/device-run"
rm -rf "$work" && mkdir -p "$work"
export TELVO_HOME="$work/home"
"${on_device[@]}" "$device/usr/bin/telvo" collector --port 0 --data "$work/data" >"$work/collector.out" 2>"$work/collector.log" &
collector=$!
trap 'kill "$collector" 2>/dev/null || true; wait "$collector" 2>/dev/null || true' EXIT
for _ in $(seq 300); do
  grep -q "listening on" "$work/collector.out" 2>/dev/null && break
  sleep 0.1
done
base="$(sed -nE 's|.*listening on (https://127\.0\.0\.1:[0-9]+).*|\1|p' "$work/collector.out")"
[ -n "$base" ] || { cat "$work/collector.log" >&2; die "the packaged collector did not start"; }
args=(--config-base "$base/mdrv/telvo/config/" --app demo --site lab --cacert "$work/data/collector-cert.pem")
timeout 120 "${on_device[@]}" "$build/host_c" "${args[@]}" --timeout 60 >"$work/host.out" 2>&1 ||
  { cat "$work/host.out" >&2; die "the C host failed on the emulated device"; }
rss="$(timeout 120 "${on_device[@]}" "$build/client_rss" "${args[@]}")" || die "client_rss failed"
say "the C host's events reached the packaged collector on the emulated device"

# The footprint on this architecture: the stripped library, and resident
# memory under qemu (the emulator's own pages included, so the second
# client's growth is the figure to read).
stripped="$build/libtelvo.stripped.so"
"$triple-strip" --strip-unneeded -o "$stripped" "$build/src/libtelvo.so.1"
read -r before one two < <(echo "$rss" | sed -E 's/.*before=([0-9]+) one_client=([0-9]+) two_clients=([0-9]+).*/\1 \2 \3/')
say "libtelvo.so stripped: $(stat -c %s "$stripped") bytes; resident memory under qemu: \
$before KiB before, +$((one - before)) KiB with one ready client, +$((two - one)) KiB for a second"
say "ok"
