#!/usr/bin/env bash
# Library against the OpenCV peer pipelines (night and HDR paths) on the same
# synthetic 4000 x 3000 data, in one process. Installs Debian's OpenCV and
# Google Benchmark development packages when missing (benchmarking only: the
# normal build and tests never need them), builds a Release bench_peer in
# build-bench/ and runs it.
# Usage: scripts/bench-peer.sh
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh libopencv-dev libbenchmark-dev
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DKEP_BUILD_BENCH=ON -DKEP_BUILD_TESTS=OFF -DKEP_BUILD_TOOLS=OFF
cmake --build build-bench -j"$(nproc)" --target bench_peer
echo "machine: nproc $(nproc), $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
build-bench/bench/peer/bench_peer
