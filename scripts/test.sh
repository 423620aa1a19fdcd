#!/usr/bin/env bash
# Configures, builds and runs every test: a normal optimised build, then the same
# suite under AddressSanitizer and UndefinedBehaviorSanitizer (kepraw and its
# integration tests included: bad input must never produce a sanitizer report).
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

scripts/install-deps.sh libraw-dev libtiff-dev libpng-dev pkg-config

echo "== release build =="
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

echo "== address + undefined-behaviour sanitizer build =="
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKEP_SANITIZE=ON -DKEP_BUILD_TOOLS=ON >/dev/null
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"
