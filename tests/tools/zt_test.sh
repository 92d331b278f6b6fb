#!/usr/bin/env bash
# End-to-end tests of the zt program, run the way a user runs it.
#
# usage: zt_test.sh ZT ZT_TOOL_CHECK
# The check helper writes the input images with libpng, libtiff and libjpeg
# directly and measures zt's outputs against Little CMS.
set -uo pipefail
zt=$1
check=$2
source "$(dirname "${BASH_SOURCE[0]}")/same_pages.sh"
work=$(mktemp -d "${TMPDIR:-/tmp}/zt-tools-test.XXXXXX")
trap 'chmod -R u+w "$work" 2>/dev/null; rm -rf "$work"' EXIT
export XDG_CACHE_HOME=$work/cache  # the library's scratch folder: must stay free of swap files
mkdir -p "$XDG_CACHE_HOME"
cd "$work"
failures=0
checks=0

pass() { checks=$((checks + 1)); }
bad() {
  pass
  failures=$((failures + 1))
  echo "FAIL: $*" >&2
}
# check DESCRIPTION -- command...: a condition that must hold.
check() {
  local what=$1
  shift 2
  if "$@"; then pass; else bad "$what"; fi
}
# expect STATUS DESCRIPTION -- command...: runs, checks the status and, for a
# failure, that stderr is exactly one line.
expect() {
  local want=$1 what=$2
  shift 3
  "$@" >"$work/out.txt" 2>"$work/err.txt"
  local got=$? n
  n=$(wc -l <"$work/err.txt")
  if [[ $got -ne $want ]]; then
    bad "$what: exit $got, wanted $want; stderr: $(head -c 400 "$work/err.txt")"
  elif [[ $want -ne 0 && $n -ne 1 ]]; then
    bad "$what: $n lines on stderr, wanted one: $(head -c 400 "$work/err.txt")"
  else
    pass
    return 0
  fi
  return 1
}
# A value within a tolerance: near VALUE WANT TOL DESCRIPTION
near() {
  check "$4: $1, wanted $2 +- $3" -- awk -v v="$1" -v w="$2" -v t="$3" 'BEGIN { d = v - w; exit !(d <= t && -d <= t) }'
}
field() { # field FILE NAME: a header item of page 1 from zt info
  "$zt" info "$1" | awk -v n="$2" '$1 == n { print $2; exit }'
}
# No output and no temporary left in a folder: only the listed names.
only_files() {
  local got want
  got=$(cd "$1" && ls -A | sort | tr '\n' ' ')
  want=$(printf '%s\n' "${@:3}" | sed '/^$/d' | sort | tr '\n' ' ')
  check "$2: folder holds '$got', wanted '$want'" -- [ "$got" == "$want" ]
}

# ---- help, version, usage ---------------------------------------------------
for cmd in rip info extract merge log page; do
  expect 0 "zt $cmd --help" -- "$zt" "$cmd" --help
  grep -q "usage: zt $cmd" "$work/out.txt" || bad "zt $cmd --help prints its usage"
  expect 0 "zt help $cmd" -- "$zt" help "$cmd"
done
expect 0 "zt --version" -- "$zt" --version
grep -Eq '^zt [0-9]+\.[0-9]+\.[0-9]+$' "$work/out.txt" || bad "version line: $(cat "$work/out.txt")"
expect 0 "zt rip --version" -- "$zt" rip --version
expect 2 "no command" -- "$zt"
expect 2 "unknown command" -- "$zt" frobnicate
expect 2 "unknown option" -- "$zt" rip -o x.vlimg --frobnicate
expect 2 "resolution 0" -- "$zt" rip -o x.vlimg --dpi 0
expect 2 "resolution not a number" -- "$zt" rip -o x.vlimg --dpi 7x
expect 2 "levels beyond the output bits" -- "$zt" rip -o x.vlimg --levels 5 --bits 2
expect 2 "levels beyond 256" -- "$zt" rip -o x.vlimg --levels 300
expect 2 "pattern screen is two-level" -- "$zt" rip -o x.vlimg --screen pattern --levels 4
expect 2 "unknown screen" -- "$zt" rip -o x.vlimg --screen fm
expect 2 "no output" -- "$zt" rip
expect 2 "g4 has no VLIMG type" -- "$zt" rip -o x.vlimg --compress g4
expect 2 "--pages backwards" -- "$zt" rip -o x.vlimg --pages 3-2
only_files "$work" "usage errors write nothing" cache err.txt out.txt

# ---- the built-in page --------------------------------------------------------
expect 0 "built-in page" -- "$zt" rip -o page.vlimg --preview page.png --dpi 60 --preview-size 300
[[ $(field page.vlimg width) == 496 && $(field page.vlimg height) == 702 ]] || bad "built-in A4 at 60 dpi is 496 x 702"
[[ $(field page.vlimg bits_per_plane) == 2 ]] || bad "4 levels take 2 bits a plane"
"$zt" info --json page.vlimg | python3 -c 'import json,sys; d=json.load(sys.stdin); assert d["pages"]==1 and d["page"][0]["header"]["width"]==496 and d["page"][0]["tiles"]==6' || bad "zt info --json"
expect 0 "extract a plane" -- "$zt" extract page.vlimg -o k.png --channel 4
expect 0 "extract the page" -- "$zt" extract page.vlimg -o page.tif
expect 2 "CMYK page as PNG" -- "$zt" extract page.vlimg -o page4.png
"$check" mean k.png >/dev/null || bad "extracted plane is a readable PNG"
"$check" mean page.png >/dev/null || bad "preview is a readable PNG"
# (Every screen runs on the 50 % patch below, every codec in the next part.)
for lb in 3:2 16:4; do
  expect 0 "built-in page, ${lb%:*} levels" -- "$zt" rip -o p.vlimg --dpi 50 --levels "${lb%:*}"
  [[ $(field p.vlimg bits_per_plane) == "${lb#*:}" ]] || bad "${lb%:*} levels take ${lb#*:} bits a plane"
done

# ---- repeatability: codecs, threads, tiles -----------------------------------
# Every codec is lossless and the screening is seeded, so the planes are the
# same whatever the codec, the thread count or the tile size.
for c in lz4 deflate packbits lzw none; do
  expect 0 "codec $c" -- "$zt" rip -o "c-$c.vlimg" --dpi 40 --compress "$c" --threads 1 --tile 64
  "$zt" extract "c-$c.vlimg" -o "c-$c.tif"
  cmp -s c-lz4.tif "c-$c.tif" && pass || bad "planes coded with $c differ from lz4's"
done
expect 0 "two threads, other tiles" -- "$zt" rip -o c-t2.vlimg --dpi 40 --threads 2 --tile 128
"$zt" extract c-t2.vlimg -o c-t2.tif
cmp -s c-lz4.tif c-t2.tif && pass || bad "planes depend on threads or tiles"
[[ ! -s err.txt ]] && pass || bad "a successful run off a terminal is silent: $(cat err.txt)"
# The preview's default size: at most 2,000 pixels on the long side.
expect 0 "preview default size" -- "$zt" rip -o big.vlimg --dpi 300 --preview big.png --screen ordered
python3 -c 'import struct,sys; w,h=struct.unpack(">II", open("big.png","rb").read()[16:24]); sys.exit(not (max(w,h) <= 2000 and max(w,h) >= 1700))' &&
  pass || bad "preview of A4 at 300 dpi is at most 2,000 and not far below"

# ---- profiles: embedded ones are honoured ----------------------------------------------
# zt page writes the page as CMYK TIFF with the press profile embedded; ripped
# to another CMYK profile it is converted from the embedded one, which gives
# different inks from taking the other profile as its own.
expect 0 "zt page as TIFF" -- "$zt" page -o page-in.tif --dpi 30
expect 0 "embedded profile" -- "$zt" rip page-in.tif -o emb.vlimg --input-dpi 30 --dpi 30 \
  --profile /usr/share/color/icc/ghostscript/ps_cmyk.icc --verbose
grep -q "device link applied" err.txt && pass || bad "an embedded profile makes a device link"
expect 0 "profile given" -- "$zt" rip page-in.tif -o own.vlimg --input-dpi 30 --dpi 30 \
  --profile /usr/share/color/icc/ghostscript/ps_cmyk.icc \
  --input-profile /usr/share/color/icc/ghostscript/ps_cmyk.icc
"$zt" extract emb.vlimg -o emb.tif && "$zt" extract own.vlimg -o own.tif
cmp -s emb.tif own.tif && bad "the embedded profile was ignored" || pass
expect 0 "zt page as PNG and PostScript" -- "$zt" page -o page-in.png --dpi 20
expect 0 "zt page as PostScript" -- "$zt" page -o page-in.ps --dpi 20
head -c 11 page-in.ps | grep -q '%!PS-Adobe' && pass || bad "zt page writes PostScript"

# ---- paper profiles ------------------------------------------------------------------------
cat >paper.txt <<'PAPER'
# paper, then three drop sizes of one ink
yule-nielsen 1.6
drop 0 0.95 1.00 1.05
drop 1 0.70 0.72 0.80
drop 2 0.40 0.42 0.55
drop 3 0.15 0.16 0.25
PAPER
expect 0 "paper profile" -- "$zt" rip -o paper.vlimg --dpi 30 --paper-profile paper.txt
[[ $(field paper.vlimg bits_per_plane) == 2 ]] || bad "four drops take two bits"
printf 'drop 0 0.9 1 1\ndrop 1 0.5 0.5\n' >paper-bad.txt
expect 1 "paper profile with a short drop line" -- "$zt" rip -o x.vlimg --dpi 30 --paper-profile paper-bad.txt
printf 'drop 0 0.9 1 1\n' >paper-one.txt
expect 1 "paper profile of one drop" -- "$zt" rip -o x.vlimg --dpi 30 --paper-profile paper-one.txt
expect 2 "levels with a paper profile" -- "$zt" rip -o x.vlimg --levels 4 --paper-profile paper.txt
[[ ! -e x.vlimg ]] && pass || bad "failed paper-profile runs leave no output"

# ---- every input format, depth and colour model ---------------------------------
for kind in png:grey:8 png:grey:16 png:rgb:8 png:rgb:16 tif:grey:8 tif:grey:16 tif:rgb:8 tif:rgb:16 \
  tif:cmyk:8 tif:cmyk:16 jpg:grey:8 jpg:rgb:8 jpg:cmyk:8; do
  IFS=: read -r fmt model bits <<<"$kind"
  in="in-$model-$bits.$fmt"
  "$check" gen "$fmt" "$model" "$bits" 120 60 "$in"
  # 72 dpi in (nothing stated), 108 out: the resampler runs (x 1.5).
  if expect 0 "rip $in" -- "$zt" rip "$in" -o "$in.vlimg" --dpi 108 --preview "$in.png"; then
    [[ $(field "$in.vlimg" width) == 180 && $(field "$in.vlimg" height) == 90 ]] || bad "$in: 180 x 90 device pixels"
    expect 0 "extract $in" -- "$zt" extract "$in.vlimg" -o "$in-c.png" --channel 1
  fi
done

# ---- coverage of a flat 50 % patch, every screen -----------------------------------
# Inks at 50 % (no profile: the output's own inks), 600 dpi in and out.
"$check" gen tif cmyk 8 256 256 half.tif flat 0.5
for s in ed:4 bluenoise:4 halftone:4 ordered:4 pattern:2 ed:2 bluenoise:2; do
  IFS=: read -r screen levels <<<"$s"
  out="half-$screen-$levels.vlimg"
  expect 0 "50 % patch, $screen, $levels levels" -- "$zt" rip half.tif -o "$out" --input-dpi 600 --dpi 600 \
    --screen "$screen" --levels "$levels" --lpi 100
  for ch in 1 4; do
    "$zt" extract "$out" -o "$out-$ch.png" --channel "$ch"
    mean=$("$check" mean "$out-$ch.png" | awk '{ print $1 }')
    # Codes scaled to 0 ... 255 are the evenly spaced densities: the mean is
    # the coverage. Half of 255, within 1.5 %.
    near "$mean" 127.5 4 "coverage of 50 % with $screen, $levels levels, channel $ch"
  done
done

# ---- colour of the preview against Little CMS --------------------------------------
"$check" gen png rgb 8 160 80 patches.png
for intent in relative perceptual; do
  expect 0 "patches, $intent" -- "$zt" rip patches.png -o patches.vlimg --dpi 288 --preview patches-pv.png \
    --preview-size 640 --intent "$intent"
  code=$([[ $intent == relative ]] && echo 1 || echo 0)
  worst=$("$check" patches patches-pv.png patches.png /usr/share/color/icc/ghostscript/default_cmyk.icc "$code" | awk '/worst/ { print $2 }')
  near "$worst" 0 2 "worst dE2000 of the preview's patch means, $intent"
done

# ---- split and merge --------------------------------------------------------------------
"$check" gen tif rgb 8 96 64 multi.tif pages 4
expect 0 "whole multi-page rip" -- "$zt" rip multi.tif -o whole.vlimg --dpi 72 --tile 64
[[ $("$zt" info --json whole.vlimg | python3 -c 'import json,sys; print(json.load(sys.stdin)["pages"])') == 4 ]] || bad "4 pages ripped"
printf '1-2\n3-3\n4-4\n' | xargs -P 2 -I{} "$zt" rip multi.tif -o slice-{}.vlimg --dpi 72 --tile 64 --pages {} --quiet || bad "slices"
expect 0 "merge slices" -- "$zt" merge slice-1-2.vlimg slice-3-3.vlimg slice-4-4.vlimg -o merged.vlimg
diff_lines=$(same_pages "$zt" whole.vlimg merged.vlimg "$work") && pass || bad "merged slices: $diff_lines"
expect 1 "--pages past the end" -- "$zt" rip multi.tif -o x.vlimg --pages 5-6

# ---- bad input ----------------------------------------------------------------------------
mkdir bad && cd bad
cp ../patches.png good.png
head -c $(($(stat -c %s good.png) / 2)) good.png >half.png
head -c 4096 /dev/zero >zeros.jpg
{ printf '\xff\xd8\xff'; head -c 4096 /dev/zero; } >zeros2.jpg
python3 - <<'PY'
import struct, zlib
def chunk(t, d): return struct.pack('>I', len(d)) + t + d + struct.pack('>I', zlib.crc32(t + d) & 0xffffffff)
for name, side, rows in [('empty.png', 0, b''), ('huge.png', 100000, b'\0' * 100001)]:
    ihdr = struct.pack('>IIBBBBB', side, side, 8, 0, 0, 0, 0)
    open(name, 'wb').write(b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', ihdr) + chunk(b'IDAT', zlib.compress(rows)) + chunk(b'IEND', b''))
# TIFFs whose one strip lies about its size: fewer bytes than the lines
# need, more than the file holds, or placed beyond the end of the file.
def tiff(name, count, offset=8, stored=256):
    w, h = 16, 16
    data = bytes(range(256))[:stored]
    entries = [(256, 4, 1, w), (257, 4, 1, h), (258, 3, 1, 8), (259, 3, 1, 1), (262, 3, 1, 1),
               (273, 4, 1, offset), (277, 3, 1, 1), (278, 4, 1, h), (279, 4, 1, count)]
    out = b'II*\0' + struct.pack('<I', 8 + len(data)) + data + struct.pack('<H', len(entries))
    for tag, typ, n, val in entries:
        out += struct.pack('<HHI', tag, typ, n) + (struct.pack('<HH', val, 0) if typ == 3 else struct.pack('<I', val))
    open(name, 'wb').write(out + b'\0\0\0\0')
tiff('lying-short.tif', 10, stored=10)
tiff('lying-long.tif', 0x7fffff00, offset=200)
tiff('lying-offset.tif', 256, offset=1 << 30)
open('notaprofile.icc', 'wb').write(b'this is not an ICC profile' * 10)
PY
mkdir out
expect 1 "missing input" -- "$zt" rip missing.png -o out/x.vlimg
expect 1 "a folder as input" -- "$zt" rip out -o out/x.vlimg
expect 1 "PNG cut in half" -- "$zt" rip half.png -o out/x.vlimg --preview out/x.png
expect 1 "JPEG of zeros" -- "$zt" rip zeros.jpg -o out/x.vlimg
expect 1 "JPEG marker then zeros" -- "$zt" rip zeros2.jpg -o out/x.vlimg
expect 1 "0 x 0 PNG" -- "$zt" rip empty.png -o out/x.vlimg
expect 1 "100,000 x 100,000 PNG" -- "$zt" rip huge.png -o out/x.vlimg
for t in lying-short lying-long lying-offset; do expect 1 "TIFF with a lying strip ($t)" -- "$zt" rip $t.tif -o out/x.vlimg; done
expect 1 "output profile that is not one" -- "$zt" rip good.png -o out/x.vlimg --profile notaprofile.icc
expect 1 "input profile that is not one" -- "$zt" rip good.png -o out/x.vlimg --input-profile notaprofile.icc
expect 1 "RGB output profile" -- "$zt" rip good.png -o out/x.vlimg --profile /usr/share/color/icc/ghostscript/srgb.icc
expect 1 "output folder missing" -- "$zt" rip good.png -o nowhere/x.vlimg
expect 1 "output folder read-only" -- "$zt" rip good.png -o /proc/x.vlimg
expect 1 "preview folder missing" -- "$zt" rip good.png -o out/x.vlimg --preview nowhere/x.png
expect 1 "output too large at this resolution" -- "$zt" rip good.png -o out/x.vlimg --input-dpi 1 --dpi 20000
# A full disk: the file-size limit makes every write beyond 64 KiB fail.
(trap '' XFSZ; ulimit -f 64; exec "$zt" rip -o out/x.vlimg --dpi 200 --quiet) 2>err.txt
status=$?
[[ $status -eq 1 && $(wc -l <err.txt) -eq 1 ]] && pass || bad "full disk: exit $status, stderr $(head -c 300 err.txt)"
only_files out "failed rips leave nothing behind"
# A disk that really fills: a 256 KiB tmpfs, mounted in a user and mount
# namespace of its own where the machine allows one (no root needed).
if unshare --user --map-root-user --mount true 2>/dev/null; then
  mkdir -p full
  unshare --user --map-root-user --mount bash -c '
    mount -t tmpfs -o size=256k tmpfs full || exit 3
    "$1" rip -o full/x.vlimg --dpi 200 --quiet 2>err.txt
    echo $? >status.txt
    ls -A full >left.txt' _ "$zt"
  status=$(cat status.txt 2>/dev/null)
  [[ $status == 1 && $(wc -l <err.txt) -eq 1 && ! -s left.txt ]] && pass ||
    bad "full tmpfs: exit $status, stderr $(head -c 300 err.txt), left: $(cat left.txt 2>/dev/null)"
else
  echo "note: no user namespaces here; the full-tmpfs case is left to the file-size limit above"
fi
# Interrupted: the temporary goes with the process.
"$zt" rip -o out/x.vlimg --dpi 600 --preview out/x.png --quiet &
pid=$!
sleep 0.4
kill -TERM $pid 2>/dev/null
wait $pid
only_files out "an interrupted rip leaves nothing behind"
# VLIMG readers on damaged files.
head -c 3000 ../page.vlimg >out/cut.vlimg
expect 1 "info of a cut VLIMG" -- "$zt" info out/cut.vlimg
expect 1 "extract of a cut VLIMG" -- "$zt" extract out/cut.vlimg -o out/cut.png --channel 1
expect 1 "info of a PNG" -- "$zt" info good.png
expect 1 "extract of a missing page" -- "$zt" extract ../page.vlimg --page 9 -o out/p.png --channel 1
expect 1 "extract of a missing plane" -- "$zt" extract ../page.vlimg --channel 9 -o out/p.png
expect 1 "merge with a missing file" -- "$zt" merge ../page.vlimg missing.vlimg -o out/m.vlimg
rm out/cut.vlimg
only_files out "failed reads and merges leave nothing behind"
cd ..
[[ -z $(find "$XDG_CACHE_HOME" -type f) ]] && pass || bad "files left in the scratch folder: $(find "$XDG_CACHE_HOME" -type f)"

# ---- the log of an installation root ---------------------------------------------------------
mkdir root
now=$(date +%s)
printf '185209664\n%s\nvlimg\nVLIMG_Open\nCannot open a.vlimg for read\n185209664\n%s\nresample\nresampleInit\nRequested scale factor is beyond algorithm'"'"'s ability\n' \
  100 "$now" >root/errors.log
expect 0 "zt log" -- "$zt" log --root root
[[ $(wc -l <out.txt) -eq 2 ]] && grep -q "vlimg VLIMG_Open Cannot open a.vlimg for read" out.txt && pass || bad "zt log shows both records: $(cat out.txt)"
expect 0 "zt log --trim" -- "$zt" log --root root --trim --max-age 3600
expect 0 "zt log after trim" -- env ZT_ROOT=root "$zt" log
[[ $(wc -l <out.txt) -eq 1 ]] && grep -q resampleInit out.txt && pass || bad "trim keeps the recent record: $(cat out.txt)"
expect 1 "zt log of a missing root" -- "$zt" log --root nowhere

echo "$checks checks, $failures failed"
[[ $failures -eq 0 ]]
