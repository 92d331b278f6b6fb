#!/usr/bin/env bash
# The test command: installs what is missing, configures build/ (Ninja,
# RelWithDebInfo, warnings as errors), builds everything including the
# benchmarks and runs every test.
#
# usage: scripts/test.sh [extra CMake arguments]
# Environment: ZT_BUILD_DIR (default build), ZT_TEST_TIMEOUT (seconds per test,
# default 120), ZT_TEST_JOBS (default 2).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
build_dir=${ZT_BUILD_DIR:-build}

"$root/scripts/deps.sh" --tests

cmake -S . -B "$build_dir" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZT_WERROR=ON \
  -DZT_BUILD_TESTS=ON \
  -DZT_BUILD_BENCH=ON \
  "$@"
cmake --build "$build_dir"
cd "$build_dir"
ctest --output-on-failure -j "${ZT_TEST_JOBS:-2}" --timeout "${ZT_TEST_TIMEOUT:-120}" --no-tests=error
