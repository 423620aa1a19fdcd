#!/usr/bin/env bash
# Installs what is missing, builds everything (release) and runs the demo:
# a synthetic low-light burst and HDR bracket through both paths of the library.
# Results go to ./kepraw-demo/ (extra arguments are passed to `kepraw demo`).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh libraw-dev libtiff-dev libpng-dev pkg-config
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)"
echo
build/tools/kepraw/kepraw demo "$@"
