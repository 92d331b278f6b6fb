#!/usr/bin/env bash
# Installs the build into a prefix of its own, the way a user installs it,
# for the tools tests to drive the installed zt, and checks that the installed
# program stands on its own: it loads the installed library, not the build
# tree's, and its help and man page are there.
#
# usage: zt_install_test.sh CMAKE BUILD_DIR PREFIX BINDIR MANDIR
set -euo pipefail
cmake=$1 build=$2 prefix=$3 bindir=$4 mandir=$5
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# A fresh tree each time: files left from an older install must not hide a
# missing one.
rm -rf "$prefix"
"$cmake" --install "$build" --prefix "$prefix" >"$build/test-install.log" || fail "cmake --install: see $build/test-install.log"
zt=$prefix/$bindir/zt
[[ -x $zt ]] || fail "no $zt"
lib=$(ldd "$zt" | awk '$1 ~ /^libzt\.so/ { print $3 }')
[[ $lib == "$prefix"/* ]] || fail "the installed zt loads libzt from '${lib:-nowhere}', not from $prefix"
"$zt" help rip | grep -q '^usage: zt rip' || fail "zt help rip from the installed copy"
man_page=$prefix/$mandir/man1/zt.1
[[ -f $man_page ]] || fail "no man page at $man_page"
if command -v man >/dev/null; then
  MANPAGER=cat MANWIDTH=80 man -l "$man_page" 2>/dev/null | grep -q 'zt rip' || fail "man -l $man_page does not show zt rip"
fi
echo "installed into $prefix"
