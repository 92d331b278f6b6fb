#!/usr/bin/env bash
# The main job on a fresh machine: installs what is missing, builds the
# library and the zt program, and rips the built-in A4 test page into
# out/page.vlimg with a preview in out/page-preview.png.
#
# usage: scripts/run.sh [extra zt rip options, e.g. --dpi 360 --screen bluenoise]
# Environment: ZT_BUILD_DIR (default build-release), ZT_PREFIX (default install/).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
prefix=${ZT_PREFIX:-$root/install}
"$root/scripts/build.sh" "$prefix" >&2
mkdir -p out
"$prefix/bin/zt" rip -o out/page.vlimg --preview out/page-preview.png "$@"
"$prefix/bin/zt" info out/page.vlimg
echo "wrote out/page.vlimg and out/page-preview.png"
