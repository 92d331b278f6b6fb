#!/usr/bin/env bash
# Builds the library and installs it (headers, libzt, the CMake package and
# zt.pc) into a prefix.
#
# usage: scripts/build.sh [PREFIX]
#   PREFIX defaults to $ZT_PREFIX, else install/ at the top of the tree; a
#   relative PREFIX is taken from the current directory. The build tree is
#   build-release/ (or $ZT_BUILD_DIR).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
prefix=${1:-${ZT_PREFIX:-$root/install}}
if [[ $prefix != /* ]]; then
  prefix=$PWD/$prefix
fi
cd "$root"
build_dir=${ZT_BUILD_DIR:-build-release}

"$root/scripts/deps.sh"

cmake -S . -B "$build_dir" -G Ninja \
  -DCMAKE_BUILD_TYPE=Release \
  -DZT_BUILD_TESTS=OFF \
  -DZT_BUILD_BENCH=OFF
cmake --build "$build_dir"
cmake --install "$build_dir" --prefix "$prefix"
echo "installed into $prefix"
