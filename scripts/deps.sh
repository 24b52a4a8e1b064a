#!/usr/bin/env bash
# Installs the Debian packages the build, tests, benchmarks and demo need
# (chromium: the headless browser the collector's inspector is tested in).
# Quick and silent when everything is already there.
set -euo pipefail

packages=(
  build-essential cmake pkg-config ccache
  zlib1g-dev libcurl4-openssl-dev libssl-dev openssl
  nlohmann-json3-dev libcli11-dev libcpp-httplib-dev libsqlite3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  dpkg-dev jq
  chromium fonts-dejavu-core
)

# scripts/deps.sh ARCH (arm64 | armhf) adds Debian's cross compiler for that
# architecture and qemu-user, which runs what it builds.
case "${1:-}" in
  arm64|armhf) packages+=("crossbuild-essential-$1" qemu-user) ;;
  "") ;;
  *) echo "deps: unknown architecture $1" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "Installing: ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq >/dev/null
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
