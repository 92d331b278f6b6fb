#!/usr/bin/env bash
# Runs every benchmark in a Release build with repetitions, one program after
# another, then prints the closing tables (ours against its peer, medians of
# the repetitions) one after another. Best on a machine that does nothing
# else meanwhile.
#
# usage: scripts/bench.sh [regex]
#   regex selects benchmark programs by name (default: all).
# Environment: ZT_BUILD_DIR (default build-bench), ZT_BENCH_REPETITIONS
# (default 5), ZT_BENCH_FULL=1 for the full page sizes where a benchmark has a
# smaller default, ZT_BENCH_NO_BUILD=1 to use ZT_BUILD_DIR as it stands (built
# with -DCMAKE_BUILD_TYPE=Release -DZT_BUILD_BENCH=ON), ZT_BENCH_LOG_DIR to keep
# each program's whole output (default: a temporary directory).
# Exit status: non-zero when a program failed, a check before timing
# included; the tables say which goals hold.
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
build_dir=${ZT_BUILD_DIR:-build-bench}
repetitions=${ZT_BENCH_REPETITIONS:-5}
select=${1:-.}

if [[ ${ZT_BENCH_NO_BUILD:-0} != 1 ]]; then
  set -e
  "$root/scripts/deps.sh"
  cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZT_BUILD_TESTS=OFF -DZT_BUILD_BENCH=ON >/dev/null
  cmake --build "$build_dir"
  set +e
fi
build_dir=$(cd "$build_dir" && pwd)

logs=${ZT_BENCH_LOG_DIR:-$(mktemp -d "${TMPDIR:-/tmp}/zt-bench.XXXXXX")}
mkdir -p "$logs"
processor="$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(nproc) cores"
echo "processor: $processor"
failed=()

mapfile -t programs < <(find "$build_dir/bench" -type f -name '*_bench' -perm -u+x | sort | grep -E "$select" || true)
for program in "${programs[@]}"; do
  name=$(basename "$program")
  printf '\n======== %s ========\n' "$name"
  (cd "$(dirname "$program")" && "./$name" --benchmark_repetitions="$repetitions" \
    --benchmark_report_aggregates_only=true --benchmark_color=false) 2>&1 | tee "$logs/$name.log"
  [[ ${PIPESTATUS[0]} -eq 0 ]] || failed+=("$name")
done
# Whole-command benchmarks (the command-line tools beside their peers).
mapfile -t scripts < <(find bench -type f -name '*_bench.sh' | sort | grep -E "$select" || true)
for script in "${scripts[@]}"; do
  name=$(basename "$script" .sh)
  printf '\n======== %s ========\n' "$name"
  ZT_BUILD_DIR=$build_dir bash "$script" "$build_dir/bin/zt" 2>&1 | tee "$logs/$name.log"
  [[ ${PIPESTATUS[0]} -eq 0 ]] || failed+=("$name")
done

# The closing tables: each program's title line and table (from the line
# above the first "case |" header to the end of its output); a script's
# output whole.
printf '\n\n################ closing tables (processor: %s) ################\n' "$processor"
for program in "${programs[@]}"; do
  name=$(basename "$program")
  printf '\n== %s\n' "$name"
  awk '{ line[NR] = $0 } /^case +\|/ && !start { start = NR - 1 } END { if (start) for (i = start; i <= NR; ++i) print line[i]; else print "(no table: see the log)" }' \
    "$logs/$name.log"
done
for script in "${scripts[@]}"; do
  name=$(basename "$script" .sh)
  printf '\n== %s\n' "$name"
  cat "$logs/$name.log"
done
echo
echo "whole outputs in $logs"
if [[ ${#failed[@]} -gt 0 ]]; then
  echo "FAILED: ${failed[*]}"
  exit 1
fi
