#!/usr/bin/env bash
# Sets up an AArch64 cross toolchain and user-mode emulator in .cache/aarch64 (or
# $KEP_AARCH64_CACHE) without installing anything into the system: Debian's
# packages are fetched with `apt-get download` and unpacked with `dpkg -x` into
# the cache, small wrappers let the unpacked tools find their own shared
# libraries, and GoogleTest is built for AArch64 from /usr/src/googletest.
# cmake/aarch64-linux-gnu.cmake uses the result. Does nothing when the cache is
# already complete for the same package list.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cache=${KEP_AARCH64_CACHE:-$root/.cache/aarch64}

packages=(
  g++-aarch64-linux-gnu gcc-aarch64-linux-gnu cpp-aarch64-linux-gnu
  g++-12-aarch64-linux-gnu gcc-12-aarch64-linux-gnu cpp-12-aarch64-linux-gnu gcc-12-aarch64-linux-gnu-base
  binutils-aarch64-linux-gnu
  libc6-arm64-cross libc6-dev-arm64-cross linux-libc-dev-arm64-cross
  libgcc-s1-arm64-cross libgcc-12-dev-arm64-cross libstdc++6-arm64-cross libstdc++-12-dev-arm64-cross
  qemu-user-static
)
signature="1 ${packages[*]}"
if [[ -f "$cache/ready" && "$(cat "$cache/ready")" == "$signature" ]]; then
  exit 0
fi

# Host side: cmake, the native compiler (whose runtime libraries the cross compiler
# shares) and the GoogleTest sources.
"$root/scripts/install-deps.sh"

SUDO=""
if [[ $(id -u) -ne 0 ]]; then SUDO="sudo"; fi
rm -rf "$cache"
mkdir -p "$cache/debs" "$cache/sysroot" "$cache/bin"
echo "aarch64: downloading ${#packages[@]} packages into $cache"
if ! (cd "$cache/debs" && apt-get download -q "${packages[@]}" >/dev/null 2>"$cache/download.log"); then
  # The package lists may be missing or stale.
  $SUDO apt-get update -qq
  (cd "$cache/debs" && apt-get download -q "${packages[@]}" >/dev/null)
fi
for deb in "$cache"/debs/*.deb; do
  dpkg -x "$deb" "$cache/sysroot"
done
rm -rf "$cache/debs" "$cache/download.log"
# qemu-user-static brings every target; keep the one we run.
find "$cache/sysroot/usr/bin" -name 'qemu-*' ! -name 'qemu-aarch64-static' -delete
rm -rf "$cache/sysroot/usr/share/doc" "$cache/sysroot/usr/share/man"

# Wrappers: the cross binutils link against their own libbfd/libopcodes, which sit in
# the cache rather than in the system library path; the compilers also get the
# unpacked tree as their sysroot. Paths are relative to the wrapper, so the cache
# can move.
for tool in gcc g++ cpp ar ranlib nm objdump readelf strip; do
  cat >"$cache/bin/aarch64-linux-gnu-$tool" <<WRAPPER
#!/bin/sh
sysroot=\$(dirname "\$(readlink -f "\$0")")/../sysroot
LD_LIBRARY_PATH="\$sysroot/usr/lib/x86_64-linux-gnu\${LD_LIBRARY_PATH:+:\$LD_LIBRARY_PATH}"
export LD_LIBRARY_PATH
case "$tool" in
  gcc|g++|cpp) exec "\$sysroot/usr/bin/aarch64-linux-gnu-$tool" --sysroot="\$sysroot" "\$@" ;;
  *) exec "\$sysroot/usr/bin/aarch64-linux-gnu-$tool" "\$@" ;;
esac
WRAPPER
  chmod +x "$cache/bin/aarch64-linux-gnu-$tool"
done

# Smoke test: compile, link and run a threaded C++ program under the emulator.
probe=$(mktemp -d)
trap 'rm -rf "$probe"' EXIT
cat >"$probe/probe.cpp" <<'CPP'
#include <cstdio>
#include <thread>
int main() { int v = 0; std::thread t([&] { v = 42; }); t.join(); std::printf("%d\n", v); return v == 42 ? 0 : 1; }
CPP
"$cache/bin/aarch64-linux-gnu-g++" -O2 -pthread "$probe/probe.cpp" -o "$probe/probe"
"$cache/sysroot/usr/bin/qemu-aarch64-static" -L "$cache/sysroot/usr/aarch64-linux-gnu" "$probe/probe" >/dev/null

# GoogleTest for AArch64, from the sources of the host's libgtest-dev.
echo "aarch64: building GoogleTest"
cmake -S /usr/src/googletest -B "$cache/gtest-build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$cache/gtest" -DBUILD_GMOCK=OFF -DINSTALL_GTEST=ON >/dev/null
cmake --build "$cache/gtest-build" -j"$(nproc 2>/dev/null || echo 2)" >/dev/null
cmake --install "$cache/gtest-build" >/dev/null
rm -rf "$cache/gtest-build"

echo "$signature" >"$cache/ready"
echo "aarch64: toolchain ready in $cache"
