#!/usr/bin/env bash
# Runs the pipeline-hash test natively (x86-64 build) and under qemu-aarch64-static
# (AArch64 cross build) and fails unless both print the same hash for every output.
# Usage: scripts/compare-pipeline-hashes.sh [native-build-dir] [aarch64-build-dir]
#        (defaults: build, build-aarch64; both must have been built)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
native=${1:-build}
cross=${2:-build-aarch64}
cache=${KEP_AARCH64_CACHE:-$root/.cache/aarch64}
cd "$root"

program=tests/test_pipeline_hashes
for dir in "$native" "$cross"; do
  [[ -x "$dir/$program" ]] || { echo "hashes: $dir/$program is missing (build it first)" >&2; exit 2; }
done

out="$cross/pipeline-hashes"
mkdir -p "$out"
rm -f "$out/x86_64.txt" "$out/aarch64.txt"
KEP_PIPELINE_HASHES="$out/x86_64.txt" "$native/$program" >"$out/x86_64.log" 2>&1 ||
  { cat "$out/x86_64.log"; echo "hashes: native run failed" >&2; exit 1; }
KEP_PIPELINE_HASHES="$out/aarch64.txt" \
  "$cache/sysroot/usr/bin/qemu-aarch64-static" -L "$cache/sysroot/usr/aarch64-linux-gnu" "$cross/$program" \
  >"$out/aarch64.log" 2>&1 || { cat "$out/aarch64.log"; echo "hashes: AArch64 run failed" >&2; exit 1; }

count=$(wc -l <"$out/x86_64.txt")
if ((count == 0)); then
  echo "hashes: the test wrote no hashes" >&2
  exit 1
fi
if ! diff -u "$out/x86_64.txt" "$out/aarch64.txt"; then
  echo "hashes: x86-64 and AArch64 outputs differ (lines above: - x86-64, + AArch64)" >&2
  exit 1
fi
echo "hashes: $count pipeline hashes identical on x86-64 and AArch64 ($(cut -d' ' -f1 "$out/x86_64.txt" | sort -u | tr '\n' ' '))"
