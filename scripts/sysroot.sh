#!/usr/bin/env bash
# Makes a sysroot for a device architecture: the target's libraries and
# headers, taken from Debian's packages for that architecture and unpacked
# with `dpkg -x` into a folder of their own. Nothing is installed for the
# target on this machine, so the host's own packages never have to match
# the target's versions (multiarch -dev packages must, and a package index
# briefly out of step makes apt refuse them).
#   scripts/sysroot.sh ARCH        (arm64 | armhf) prints the sysroot's path
# The sysroot is kept in ${TELVO_CACHE:-~/.cache/telvo}/sysroot-ARCH and
# made again only when the package versions change. Exits 3, with one line
# saying why, when the architecture's packages cannot be had.
set -euo pipefail
arch="${1:?usage: scripts/sysroot.sh arm64|armhf}"
case "$arch" in arm64|armhf) ;; *) echo "sysroot: unknown architecture $arch" >&2; exit 2 ;; esac

cache="${TELVO_CACHE:-$HOME/.cache/telvo}"
root="$cache/sysroot-$arch"
debs="$cache/debs-$arch"
mkdir -p "$debs"

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
unavailable() { echo "sysroot: $arch packages unavailable: $*" >&2; exit 3; }

if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
  $sudo dpkg --add-architecture "$arch"
  $sudo apt-get update -qq >/dev/null 2>&1 || true
fi

# What the library, the tool and the tests link, with everything they need
# at run time. The C library's headers come from the cross compiler; its
# run-time loader and libraries come from here.
wanted=(zlib1g-dev libcurl4-openssl-dev libssl-dev libsqlite3-dev libcpp-httplib-dev
        libgtest-dev libgmock-dev libc6 libstdc++6)
leave_out='^(libc6-dev|linux-libc-dev|libcrypt-dev|libnsl-dev|libtirpc-dev|libc-dev-bin|rpcsvc-proto)$'
closure=$(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts \
            --no-breaks --no-replaces --no-enhances "${wanted[@]/%/:$arch}" 2>/dev/null |
          sed -n "s/^\([a-z0-9][a-z0-9.+-]*\):$arch\$/\1/p" | sort -u | grep -Ev "$leave_out") ||
  unavailable "apt knows no $arch packages (apt-get update failed?)"
# Header-only packages are the same for every architecture.
closure="$closure nlohmann-json3-dev libcli11-dev"

# The exact versions decide whether the sysroot is current.
listing=""
for package in $closure; do
  spec="$package:$arch"
  case "$package" in nlohmann-json3-dev|libcli11-dev) spec="$package" ;; esac
  version=$(apt-cache policy "$spec" | awk '/Candidate:/ {print $2}')
  [ -n "$version" ] && [ "$version" != "(none)" ] || unavailable "no candidate for $spec"
  listing+="$spec=$version"$'\n'
done
if [ -f "$root/.packages" ] && [ "$(cat "$root/.packages")" = "$listing" ]; then
  echo "$root"
  exit 0
fi

echo "sysroot: fetching $(echo "$closure" | wc -w) packages for $arch" >&2
(cd "$debs" && apt-get download -qq $(echo "$listing" | sed '/^$/d') >/dev/null 2>&1) ||
  unavailable "apt-get download failed (package index out of step?)"

rm -rf "$root.new"
mkdir -p "$root.new"
while read -r spec; do
  [ -n "$spec" ] || continue
  name="${spec%%=*}"; name="${name%%:*}"; version="${spec#*=}"
  file=$(ls "$debs/${name}_${version//:/%3a}_"*.deb 2>/dev/null | head -1)
  [ -n "$file" ] || unavailable "$spec was not downloaded"
  dpkg -x "$file" "$root.new"
done <<<"$listing"
# Links that point at absolute paths must point into the sysroot.
find "$root.new" -type l -lname '/*' | while read -r link; do
  target=$(readlink "$link")
  ln -sfn "$root.new$target" "$link"
done
printf '%s' "$listing" >"$root.new/.packages"
# Absolute links were made for the temporary name: remake them for the final one.
rm -rf "$root"
mv "$root.new" "$root"
find "$root" -type l -lname "$root.new/*" | while read -r link; do
  target=$(readlink "$link")
  ln -sfn "$root${target#"$root.new"}" "$link"
done
echo "$root"
