#!/usr/bin/env bash
# Builds everything and runs every test: a plain build, then a build with
# AddressSanitizer and UndefinedBehaviorSanitizer, then the concurrency tests
# under ThreadSanitizer, then a short run of each fuzz target. Exits non-zero on
# any failure.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/install-deps.sh"
jobs="${JOBS:-$(nproc)}"

run_total=0
failed_total=0
run_suite() {
  local name="$1"; shift
  echo "=== $name build ==="
  bash "$root/scripts/build.sh" "$name" "$@"
  echo "=== $name tests ==="
  # Listing the tests loads the store library, which reads the registry: point
  # it at the build folder rather than the user's home.
  (cd "$root/build/$name" && XK_REGISTRY_PATH="$root/build/$name/test-default-registry.db" \
     ctest --output-on-failure -j "$jobs" ${CTEST_ARGS:-}) | tee "$root/build/$name/ctest.log"
  local counts
  counts=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\1 \2/p' "$root/build/$name/ctest.log")
  failed_total=$((failed_total + ${counts% *}))
  run_total=$((run_total + ${counts#* }))
}

run_suite plain -DCMAKE_BUILD_TYPE=RelWithDebInfo
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite asan -DCMAKE_BUILD_TYPE=Debug -DMSTORE_SANITIZE=address,undefined -DMSTORE_BENCH=OFF
# Concurrency tests once more under ThreadSanitizer.
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 CTEST_ARGS="-L concurrency" \
  run_suite tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMSTORE_SANITIZE=thread -DMSTORE_BENCH=OFF
# Every decoder of stored bytes, fuzzed for a short while under ASan + UBSan.
echo "=== fuzz ==="
FUZZ_SECONDS="${FUZZ_SECONDS:-20}" bash "$root/scripts/fuzz.sh"
echo "all test suites passed"
echo "tests: $((run_total - failed_total)) passed, $failed_total failed"
