#!/usr/bin/env bash
# Installs the built library into a scratch prefix and builds and runs the
# consumer programs against it twice: through the CMake package
# (find_package(ZT) and ZT::zt) and through pkg-config (zt.pc). Each program
# must resolve libzt from the scratch prefix, not from anywhere else.
#
# usage: consumer_test.sh --build-dir DIR --source-dir DIR --cmake CMAKE
#          --generator GEN [--make-program PROG] --c-compiler CC
#          --cxx-compiler CXX [--flags=FLAGS]
#   FLAGS are added to every compile and link (the sanitizer of the build).
set -euo pipefail

build_dir="" source_dir="" cmake="" generator="" make_program=""
c_compiler="" cxx_compiler="" flags=""
while [[ $# -gt 0 ]]; do
  case $1 in
    --build-dir) build_dir=$2; shift 2 ;;
    --source-dir) source_dir=$2; shift 2 ;;
    --cmake) cmake=$2; shift 2 ;;
    --generator) generator=$2; shift 2 ;;
    --make-program) make_program=$2; shift 2 ;;
    --c-compiler) c_compiler=$2; shift 2 ;;
    --cxx-compiler) cxx_compiler=$2; shift 2 ;;
    --flags=*) flags=${1#--flags=}; shift ;;
    *) echo "unknown argument: $1" >&2; exit 2 ;;
  esac
done
for v in build_dir source_dir cmake generator c_compiler cxx_compiler; do
  if [[ -z ${!v} ]]; then
    echo "missing --${v//_/-}" >&2
    exit 2
  fi
done

tmp=$(mktemp -d "${TMPDIR:-/tmp}/zt-consumer.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

step() { echo "== $*"; }
# Runs a command quietly, showing its output only when it fails.
quiet() {
  local log=$tmp/step.log
  if ! "$@" >"$log" 2>&1; then
    cat "$log"
    echo "FAIL: $*"
    exit 1
  fi
}

# A consumer program runs in its own working directory with its own scratch
# directory, must load libzt from the prefix, and must leave its one message in
# the log file ("errors.log" in the working directory).
run_consumer() {
  local exe=$1 label=$2 message=$3
  local resolved
  resolved=$(ldd "$exe" | awk '/libzt\.so/ { print $3 }')
  case $(realpath -m "$resolved") in
    "$(realpath "$prefix")"/*) ;;
    *) echo "FAIL: $label loads libzt from '${resolved:-<not found>}', not from $prefix"; exit 1 ;;
  esac
  local rundir=$tmp/run-$label
  mkdir -p "$rundir/cache"
  if ! (cd "$rundir" && env -u LD_LIBRARY_PATH XDG_CACHE_HOME="$rundir/cache" "$exe"); then
    echo "FAIL: $label exited with an error"
    exit 1
  fi
  if ! grep -qxF "$message" "$rundir/errors.log" 2>/dev/null; then
    echo "FAIL: $label did not log '$message'"
    exit 1
  fi
  echo "$label ran"
}

step "install into $prefix"
quiet "$cmake" --install "$build_dir" --prefix "$prefix"
for f in include/zt/api.h include/zt/init.h include/zt/log.h; do
  [[ -f $prefix/$f ]] || { echo "FAIL: $f not installed"; exit 1; }
done
config=$(find "$prefix" -name ZTConfig.cmake -print -quit)
pc=$(find "$prefix" -name zt.pc -print -quit)
[[ -n $config ]] || { echo "FAIL: ZTConfig.cmake not installed"; exit 1; }
[[ -n $pc ]] || { echo "FAIL: zt.pc not installed"; exit 1; }

step "CMake package: find_package(ZT) and ZT::zt"
cmake_args=(-S "$source_dir" -B "$tmp/cmake-build" -G "$generator"
  -DCMAKE_BUILD_TYPE=Release
  "-DCMAKE_C_COMPILER=$c_compiler" "-DCMAKE_CXX_COMPILER=$cxx_compiler"
  "-DCMAKE_PREFIX_PATH=$prefix"
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF
  "-DCMAKE_C_FLAGS=$flags" "-DCMAKE_CXX_FLAGS=$flags" "-DCMAKE_EXE_LINKER_FLAGS=$flags")
if [[ -n $make_program ]]; then
  cmake_args+=("-DCMAKE_MAKE_PROGRAM=$make_program")
fi
quiet env -u CMAKE_PREFIX_PATH -u ZT_DIR "$cmake" "${cmake_args[@]}"
zt_dir=$(sed -n 's/^ZT_DIR:[A-Z]*=//p' "$tmp/cmake-build/CMakeCache.txt")
if [[ $(realpath -m "$zt_dir") != "$(realpath "$(dirname "$config")")" ]]; then
  echo "FAIL: find_package(ZT) found '$zt_dir', not the installed $(dirname "$config")"
  exit 1
fi
quiet "$cmake" --build "$tmp/cmake-build"
run_consumer "$tmp/cmake-build/consumer_c" cmake-c "consumer c says 1"
run_consumer "$tmp/cmake-build/consumer_cxx" cmake-cxx "consumer c++ says 1"

step "pkg-config: zt.pc"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$pc")
if ! pkg-config --exists --print-errors zt; then
  echo "FAIL: pkg-config does not find zt in $PKG_CONFIG_PATH"
  exit 1
fi
includedir=$(pkg-config --variable=includedir zt)
libdir=$(pkg-config --variable=libdir zt)
if [[ $(realpath -m "$includedir") != "$(realpath "$prefix")"/* ||
      $(realpath -m "$libdir") != "$(realpath "$prefix")"/* ]]; then
  echo "FAIL: zt.pc points to '$includedir' and '$libdir', outside $prefix"
  exit 1
fi
read -r -a pc_flags <<<"$(pkg-config --cflags --libs zt)"
read -r -a extra_flags <<<"$flags"
mkdir -p "$tmp/pc-build"
quiet "$c_compiler" -std=c11 -Wall -Wextra -pedantic-errors "${extra_flags[@]}" \
  "$source_dir/consumer.c" -o "$tmp/pc-build/consumer_c" "${pc_flags[@]}" "-Wl,-rpath,$libdir"
run_consumer "$tmp/pc-build/consumer_c" pkg-config-c "consumer c says 1"

echo "consumer OK"
