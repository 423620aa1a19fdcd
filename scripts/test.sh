#!/usr/bin/env bash
# Configures, builds and runs every check, stage by stage, and reports the time of
# each stage:
#   release  optimised build (gcc), whole test suite
#   plain    build with every kernel on its plain definition (-DKEP_FORCE_PLAIN=ON),
#            whole test suite, and the pipeline hashes compared with the release build's
#   asan     AddressSanitizer + UndefinedBehaviorSanitizer build, whole test suite
#            (kepraw and its integration tests included: bad input must never
#            produce a sanitizer report)
#   tsan     ThreadSanitizer build, the HDR and concurrency tests (labels hdr, threads)
#   fuzz     libFuzzer targets (clang, own build folder), each run KEP_FUZZ_SECONDS
#            seconds (default 60), KEP_FUZZ_JOBS at a time (default 2)
#   aarch64  cross build for AArch64, whole test suite under qemu-aarch64-static, and
#            the pipeline hashes compared with the release build's
# KEP_STAGES picks stages (default: all of them, in this order), e.g.
#   KEP_STAGES="release asan" scripts/test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
stages=${KEP_STAGES:-release plain asan tsan fuzz aarch64}

# cmake -S . -B <dir> <options...>, quiet apart from the checks it leaves out (and
# everything on failure).
configure() {
  local dir=$1 log
  shift
  log=$(mktemp)
  if ! cmake -S . -B "$dir" "$@" >"$log" 2>&1; then
    cat "$log"
    rm -f "$log"
    return 1
  fi
  grep -E '^-- (tests|fuzz): .*skipped' "$log" || true
  rm -f "$log"
}

stage_release() {
  configure build -DCMAKE_BUILD_TYPE=Release
  cmake --build build -j"$jobs"
  ctest --test-dir build --output-on-failure -j"$jobs"
}

stage_plain() {
  configure build-plain -DCMAKE_BUILD_TYPE=Release -DKEP_FORCE_PLAIN=ON -DKEP_BUILD_TOOLS=OFF
  cmake --build build-plain -j"$jobs"
  ctest --test-dir build-plain --output-on-failure -j"$jobs"
  if [[ ! -x build/tests/test_pipeline_hashes ]]; then
    configure build -DCMAKE_BUILD_TYPE=Release
    cmake --build build -j"$jobs" --target test_pipeline_hashes
  fi
  rm -f build-plain/hashes-fast.txt build-plain/hashes-plain.txt
  KEP_PIPELINE_HASHES=build-plain/hashes-fast.txt build/tests/test_pipeline_hashes >build-plain/hashes-fast.log 2>&1 || { cat build-plain/hashes-fast.log; return 1; }
  KEP_PIPELINE_HASHES=build-plain/hashes-plain.txt build-plain/tests/test_pipeline_hashes >build-plain/hashes-plain.log 2>&1 || { cat build-plain/hashes-plain.log; return 1; }
  if ! diff -u build-plain/hashes-fast.txt build-plain/hashes-plain.txt; then
    echo "hashes: fast and plain builds differ (lines above: - fast, + plain)" >&2
    return 1
  fi
  echo "hashes: $(wc -l <build-plain/hashes-fast.txt) pipeline hashes identical in the fast and plain builds"
}

stage_asan() {
  configure build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKEP_SANITIZE=ON -DKEP_BUILD_TOOLS=ON
  cmake --build build-asan -j"$jobs"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan --output-on-failure -j"$jobs"
}

stage_tsan() {
  configure build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKEP_TSAN=ON -DKEP_BUILD_TOOLS=OFF
  cmake --build build-tsan -j"$jobs" --target kep_threaded_tests
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    ctest --test-dir build-tsan --output-on-failure -j"$jobs" -L 'hdr|threads' --no-tests=error
}

stage_fuzz() {
  scripts/fuzz.sh
}

stage_aarch64() {
  scripts/aarch64-test.sh build
}

scripts/install-deps.sh libraw-dev libtiff-dev libpng-dev pkg-config

passed=0
timings=()
for stage in $stages; do
  if ! declare -F "stage_$stage" >/dev/null; then
    echo "unknown stage: $stage (stages: release plain asan tsan fuzz aarch64)" >&2
    exit 2
  fi
  echo "== $stage =="
  start=$SECONDS
  set +e
  (set -e; "stage_$stage")
  status=$?
  set -e
  timings+=("$stage $((SECONDS - start))s")
  if ((status != 0)); then
    echo "== $stage FAILED after $((SECONDS - start))s =="
    echo "stage times: ${timings[*]}"
    echo "stages: $passed passed, 1 failed"
    exit 1
  fi
  passed=$((passed + 1))
done

echo "stage times: ${timings[*]} (total ${SECONDS}s)"
echo "stages: $passed passed, 0 failed"
