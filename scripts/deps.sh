#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need,
# when any is missing (Debian 12). Runs as root, or through sudo when that is
# available. Extra packages may be named on the command line; --tests adds
# what only the test command needs.
set -euo pipefail

# Everything the project needs from the system, in one place.
ZT_PACKAGES=(
  # Build tools
  cmake ninja-build g++ gcc pkg-config binutils
  # Tests
  libgtest-dev libgmock-dev
  # Benchmarks, and oneTBB to compare the task queues against
  libbenchmark-dev libtbb-dev
  # Block compressors (libdeflate reads deflate blocks whole, twice as fast as
  # zlib's streaming inflate; zlib writes them)
  zlib1g-dev liblz4-dev libdeflate-dev
  # Test oracles and benchmark peers: Little CMS for the colour arithmetic and
  # the table interpolators, libtiff for the PackBits, LZW and Group 4 codecs
  liblcms2-dev libtiff-dev
  # Benchmark peer for the resampler: libvips reduce/resize with the same kernels
  libvips-dev
  # The zt program: PNG, JPEG and TIFF input and output (libpng, libjpeg-turbo,
  # libtiff above), colour links built by Little CMS (above); the default CMYK
  # output profile is Ghostscript's press profile from libgs-common, and
  # icc-profiles-free brings the FOGRA39 characterisation data beside it
  libpng-dev libjpeg62-turbo-dev libgs-common icc-profiles-free
  # Benchmark peer of zt rip: Ghostscript's halftoning CMYK devices
  ghostscript
  # The ztlib Python package (python/): pybind11 builds it against Debian's
  # python3 and numpy; pytest runs its tests; matplotlib draws the example
  python3-dev pybind11-dev python3-numpy python3-pytest python3-matplotlib
  # The fuzz targets: clang with libFuzzer
  clang libclang-rt-14-dev
)

# Only for the test command (scripts/test.sh): scripts/run.sh and
# scripts/build.sh leave a machine without daemon packages.
ZT_TEST_PACKAGES=(
  # The scale-out test submits the job-array script to a real one-node Slurm
  # (controller and node daemon on loopback); Slurm authenticates with MUNGE,
  # whose daemon the test starts with a key of its own. tiffinfo (libtiff-tools)
  # counts the input's pages in that script.
  slurm-wlm munge libtiff-tools
)

packages=("${ZT_PACKAGES[@]}")
for arg in "$@"; do
  if [[ $arg == --tests ]]; then
    packages+=("${ZT_TEST_PACKAGES[@]}")
  else
    packages+=("$arg")
  fi
done

if ! command -v dpkg-query >/dev/null; then
  echo "deps: not a Debian system; install these yourself: ${packages[*]}" >&2
  exit 0
fi

missing=()
for pkg in "${packages[@]}"; do
  if [[ $(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true) != "install ok installed" ]]; then
    missing+=("$pkg")
  fi
done
if [[ ${#missing[@]} -eq 0 ]]; then
  echo "deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "deps: installing ${missing[*]}"
as_root=()
if [[ $(id -u) -ne 0 ]]; then
  if command -v sudo >/dev/null; then
    as_root=(sudo -n)
  else
    echo "deps: missing ${missing[*]}; run this script as root" >&2
    exit 1
  fi
fi
export DEBIAN_FRONTEND=noninteractive
# Slurm and MUNGE come for the test, which starts daemons of its own on
# loopback: their system services are not started by the installation (the
# usual policy-rc.d refusal, only while apt runs and only where the machine
# has no policy of its own).
policy=/usr/sbin/policy-rc.d
if [[ ! -e $policy ]] && printf '%s\n' "${missing[@]}" | grep -qx -e slurm-wlm -e munge; then
  printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
  "${as_root[@]}" chmod 755 "$policy"
  trap '"${as_root[@]}" rm -f "$policy"' EXIT
fi
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q </dev/null
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
  "${missing[@]}" </dev/null
