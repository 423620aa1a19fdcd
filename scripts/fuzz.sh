#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang in their own folder (build-fuzz;
# the normal gcc builds are not touched) and runs each of them for a while. Fails
# when a target crashes, leaks, times out on an input or breaks one of its checks;
# the input that did it is kept in build-fuzz/artifacts/.
#
# Usage: scripts/fuzz.sh [target ...]        (default: every target this tree has)
# Environment:
#   KEP_FUZZ_SECONDS  run time of each target, default 60
#   KEP_FUZZ_JOBS     targets run side by side, default 2
#   KEP_FUZZ_BUILD    build folder, default build-fuzz
#
# Each run starts from the seeds in fuzz/corpus/<target>/ plus what earlier runs in
# the same build folder found (build-fuzz/corpus/<target>/); new inputs go there,
# never into the source tree.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${KEP_FUZZ_SECONDS:-60}
parallel=${KEP_FUZZ_JOBS:-2}
build=${KEP_FUZZ_BUILD:-build-fuzz}
jobs=$(nproc 2>/dev/null || echo 2)

# clang with its libFuzzer and sanitizer runtimes (installed only when missing).
scripts/install-deps.sh clang libclang-rt-14-dev
mkdir -p "$build"
if ! cmake -S . -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKEP_FUZZ=ON \
  -DKEP_BUILD_TESTS=OFF -DKEP_BUILD_TOOLS=OFF -DKEP_BUILD_BENCH=OFF >"$build/configure.log" 2>&1; then
  cat "$build/configure.log"
  exit 1
fi
grep -E '^-- fuzz:' "$build/configure.log" || true
cmake --build "$build" -j"$jobs"

if (($# > 0)); then
  targets=("$@")
else
  mapfile -t targets < <(grep -v '^$' "$build/fuzz-targets.txt")
fi
mkdir -p "$build/logs" "$build/artifacts"

# Runs one target; its output goes to build-fuzz/logs/<target>.log.
run_target() {
  local target=$1 seeds="fuzz/corpus/$1" found="$build/corpus/$1"
  mkdir -p "$found" "$seeds"
  # stdout is closed (the entries print progress lines); reports go to stderr.
  "$build/fuzz/$target" -max_total_time="$seconds" -max_len=8192 -len_control=0 -timeout=30 -rss_limit_mb=4096 \
    -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$build/artifacts/$target-" \
    "$found" "$seeds" >"$build/logs/$target.log" 2>&1
}

summary() {
  local target=$1 log="$build/logs/$1.log"
  local runs cov
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1)
  echo "${runs:-0} inputs, ${cov:-cov: ?}"
}

failed=()
for ((i = 0; i < ${#targets[@]}; i += parallel)); do
  batch=("${targets[@]:i:parallel}")
  pids=()
  for target in "${batch[@]}"; do
    if [[ ! -x "$build/fuzz/$target" ]]; then
      echo "fuzz: no such target: $target" >&2
      exit 2
    fi
    run_target "$target" &
    pids+=($!)
  done
  for k in "${!batch[@]}"; do
    target=${batch[k]}
    if wait "${pids[k]}"; then
      echo "fuzz: $target ok ($(summary "$target"), ${seconds}s)"
    else
      echo "fuzz: $target FAILED ($(summary "$target")); log: $build/logs/$target.log"
      grep -v -E '^#[0-9]+|^INFO:|NEW_FUNC' "$build/logs/$target.log" | tail -60
      failed+=("$target")
    fi
  done
done

if ((${#failed[@]} > 0)); then
  echo "fuzz: failing targets: ${failed[*]}" >&2
  exit 1
fi
