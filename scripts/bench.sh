#!/usr/bin/env bash
# Runs every benchmark in a Release build with repetitions, one program after
# another, so that each prints its closing table (ours against its peer) on a
# machine that does nothing else meanwhile.
#
# usage: scripts/bench.sh [regex]
#   regex selects benchmark programs by name (default: all).
# Environment: ZT_BUILD_DIR (default build-bench), ZT_BENCH_REPETITIONS
# (default 5), ZT_BENCH_FULL=1 for the full page sizes where a benchmark has a
# smaller default.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
build_dir=${ZT_BUILD_DIR:-build-bench}
repetitions=${ZT_BENCH_REPETITIONS:-5}
select=${1:-.}

"$root/scripts/deps.sh"
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZT_BUILD_TESTS=OFF -DZT_BUILD_BENCH=ON >/dev/null
cmake --build "$build_dir"

echo "processor: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(nproc) cores"
mapfile -t programs < <(find "$build_dir/bench" -type f -name '*_bench' -perm -u+x | sort | grep -E "$select" || true)
for program in "${programs[@]}"; do
  printf '\n======== %s ========\n' "$(basename "$program")"
  (cd "$(dirname "$program")" && "./$(basename "$program")" --benchmark_repetitions="$repetitions" \
    --benchmark_report_aggregates_only=true)
done
# Whole-command benchmarks (the command-line tools beside their peers).
mapfile -t scripts < <(find bench -type f -name '*_bench.sh' | sort | grep -E "$select" || true)
for script in "${scripts[@]}"; do
  printf '\n======== %s ========\n' "$(basename "$script")"
  ZT_BUILD_DIR=$build_dir bash "$script"
done
