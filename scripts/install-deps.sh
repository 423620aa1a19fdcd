#!/usr/bin/env bash
# Installs the Debian packages the build, tests and tools need, only when missing.
# Usage: scripts/install-deps.sh [extra-package ...]
# The command-line tool (tools/kepraw) needs: libraw-dev libtiff-dev libpng-dev pkg-config
set -euo pipefail

need=()
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
for pkg in cmake g++ make libgtest-dev "$@"; do
  have_pkg "$pkg" || need+=("$pkg")
done

if ((${#need[@]} > 0)); then
  echo "installing: ${need[*]}"
  SUDO=""
  if [[ $(id -u) -ne 0 ]]; then SUDO="sudo"; fi
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${need[@]}"
fi
