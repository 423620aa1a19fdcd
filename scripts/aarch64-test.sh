#!/usr/bin/env bash
# Cross-builds the library and the tests for AArch64 and runs the whole suite under
# qemu-aarch64-static, then checks that the pipeline hashes match the native build.
# The toolchain is unpacked into .cache/aarch64 by scripts/aarch64-toolchain.sh
# (nothing is installed into the system).
# Usage: scripts/aarch64-test.sh [native-build-dir]   (default build; built if missing)
set -euo pipefail
cd "$(dirname "$0")/.."
native=${1:-build}
jobs=$(nproc 2>/dev/null || echo 2)

scripts/aarch64-toolchain.sh
mkdir -p build-aarch64
if ! cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DCMAKE_BUILD_TYPE=Release \
  -DKEP_BUILD_TOOLS=OFF -DKEP_BUILD_BENCH=OFF >build-aarch64/configure.log 2>&1; then
  cat build-aarch64/configure.log
  exit 1
fi
cmake --build build-aarch64 -j"$jobs"
ctest --test-dir build-aarch64 --output-on-failure -j"$jobs"

if [[ ! -x "$native/tests/test_pipeline_hashes" ]]; then
  cmake -S . -B "$native" -DCMAKE_BUILD_TYPE=Release >/dev/null || exit 1
  cmake --build "$native" -j"$jobs" --target test_pipeline_hashes
fi
scripts/compare-pipeline-hashes.sh "$native" build-aarch64
