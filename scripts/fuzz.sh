#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer + ASan + UBSan) and runs each
# one for FUZZ_SECONDS (default 20) on its seed corpus in fuzz/corpus/<name>.
# New interesting inputs land in a scratch folder, not in the repository.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${FUZZ_SECONDS:-20}"
CC=clang CXX=clang++ bash "$root/scripts/build.sh" fuzz -DMSTORE_FUZZ=ON -DMSTORE_TESTS=OFF -DMSTORE_BENCH=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo
found=0
for target in "$root"/build/fuzz/bin/*_fuzz; do
  [ -x "$target" ] || continue
  found=1
  name="$(basename "$target")"
  scratch="$root/build/fuzz/corpus/$name"
  mkdir -p "$scratch" "$root/fuzz/corpus/$name"
  echo "=== fuzzing $name for ${seconds}s ==="
  log="$root/build/fuzz/$name.log"
  set +e
  XK_REGISTRY_PATH="$root/build/fuzz/fuzz-registry.db" \
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1 \
    "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$scratch/" "$scratch" "$root/fuzz/corpus/$name" >"$log" 2>&1
  status=$?
  set -e
  grep -E 'stat::number_of_executed_units|Done [0-9]+ runs' "$log" || true
  if [ $status -ne 0 ]; then
    tail -60 "$log"
    echo "fuzz target $name failed (status $status); the input is in $scratch"
    exit 1
  fi
done
[ "$found" = 1 ] || echo "no fuzz targets built"
