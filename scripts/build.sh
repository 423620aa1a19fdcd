#!/usr/bin/env bash
# Builds the library, tools and tests (release).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh libraw-dev libtiff-dev libpng-dev pkg-config
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)"
echo "built: build/libkep_frame_registration.so and build/tools/kepraw/kepraw"
