#!/usr/bin/env bash
# zt rip beside Ghostscript: the built-in A4 page at 720 dpi (5,953 x 8,419),
# four inks, four levels, error diffusion and the blue-noise mask; whole
# command wall time and peak RSS (/usr/bin/time -v). Ghostscript renders the
# same page image (zt page, wrapped in PostScript) to its halftoning CMYK
# devices at 720 dpi in the same run. Then the peak RSS of a 9,933 x 14,043
# page (A0 at 300 dpi) and of A4 at 1440 dpi.
# Run by hand on a quiet machine (not in CI):
#   bench/tools/rip_bench.sh [ZT] [REPEATS]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
zt=${1:-$root/build/bin/zt}
repeats=${2:-3}
threads=${ZT_BENCH_THREADS:-2}
command -v gs >/dev/null || { echo "rip_bench: Ghostscript (gs) is not installed (scripts/deps.sh)" >&2; exit 1; }
work=$(mktemp -d "${TMPDIR:-/tmp}/zt-rip-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT

# measure NAME command...: best wall time (s) and largest peak RSS (MiB) of
# `repeats` runs, pinned to $threads cores.
declare -A wall rss
measure() {
  local name=$1 best="" peak=0
  shift
  for _ in $(seq "$repeats"); do
    taskset -c "0-$((threads - 1))" /usr/bin/time -v "$@" >/dev/null 2>"$work/time.txt" ||
      { echo "rip_bench: $name failed:" >&2; tail -5 "$work/time.txt" >&2; exit 1; }
    local t m
    t=$(awk -F': ' '/Elapsed \(wall clock\)/ { n = split($2, p, ":"); s = 0; for (i = 1; i <= n; ++i) s = s * 60 + p[i]; print s }' "$work/time.txt")
    m=$(awk -F': ' '/Maximum resident set size/ { printf "%.1f", $2 / 1024 }' "$work/time.txt")
    if [[ -z $best ]] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then best=$t; fi
    if awk -v a="$m" -v b="$peak" 'BEGIN { exit !(a > b) }'; then peak=$m; fi
  done
  wall[$name]=$best
  rss[$name]=$peak
}

"$zt" page -o "$work/page.ps" --dpi 720
measure zt_ed "$zt" rip -o "$work/ed.vlimg" --dpi 720 --levels 4 --screen ed --threads "$threads" --quiet
measure zt_bluenoise "$zt" rip -o "$work/bn.vlimg" --dpi 720 --levels 4 --screen bluenoise --threads "$threads" --quiet
measure zt_ed2 "$zt" rip -o "$work/ed2.vlimg" --dpi 720 --levels 2 --screen ed --threads "$threads" --quiet
measure zt_ed_preview "$zt" rip -o "$work/edp.vlimg" --preview "$work/edp.png" --dpi 720 --threads "$threads" --quiet
gs_common=(gs -q -dNOPAUSE -dBATCH -dSAFER -r720 -dNumRenderingThreads="$threads" -dBufferSpace=64000000)
measure gs_tiffsep1 "${gs_common[@]}" -sDEVICE=tiffsep1 -sOutputFile="$work/gs-%d.tif" "$work/page.ps"
measure gs_bitcmyk "${gs_common[@]}" -sDEVICE=bitcmyk -sOutputFile="$work/gs.cmyk" "$work/page.ps"
measure zt_a0_300 "$zt" rip -o "$work/a0.vlimg" --preview "$work/a0.png" --page-size A0 --dpi 300 --threads "$threads" --quiet
measure zt_a4_1440 "$zt" rip -o "$work/a4hi.vlimg" --dpi 1440 --threads "$threads" --quiet
"$zt" info "$work/a0.vlimg" | grep -E '^  (width|height) '

gs_best=$(printf '%s\n%s\n' "${wall[gs_tiffsep1]}" "${wall[gs_bitcmyk]}" | sort -g | head -1)
printf '\n%-34s %9s %9s %9s %8s  %s\n' case "ours s" "gs s" ratio "RSS MiB" "goal holds"
row() { # row CASE NAME GS_NAME TIME_GOAL
  local ours=${wall[$2]} peer=${3:+${wall[$3]}} ratio="-" holds
  [[ -n $peer ]] && ratio=$(awk -v a="$peer" -v b="$ours" 'BEGIN { printf "%.2f", a / b }')
  holds=$(awk -v t="$ours" -v g="$4" -v m="${rss[$2]}" -v p="${peer:-1e9}" \
    'BEGIN { print ((t <= g && m <= 256 && t < p) ? "yes" : "no") }')
  printf '%-34s %9s %9s %9s %8s  %s\n' "$1" "$ours" "${peer:--}" "$ratio" "${rss[$2]}" "$holds"
}
# The peer is the faster of Ghostscript's two devices (bitcmyk: one bit an
# ink, its default halftone).
gs_peer=gs_tiffsep1
awk -v a="${wall[gs_bitcmyk]}" -v b="${wall[gs_tiffsep1]}" 'BEGIN { exit !(a < b) }' && gs_peer=gs_bitcmyk
row "A4 720 dpi, ed, 4 levels" zt_ed $gs_peer 3
row "A4 720 dpi, blue noise, 4 levels" zt_bluenoise $gs_peer 3
row "A4 720 dpi, ed, 2 levels" zt_ed2 $gs_peer 3
row "A4 720 dpi, ed, with preview" zt_ed_preview $gs_peer 3
row "A0 (9,933 x 14,043), ed + preview" zt_a0_300 "" 1e9
row "A4 1440 dpi, ed" zt_a4_1440 "" 1e9
printf '%-34s %9s (tiffsep1 %s, bitcmyk %s) RSS %s / %s MiB\n' "Ghostscript best" "$gs_best" \
  "${wall[gs_tiffsep1]}" "${wall[gs_bitcmyk]}" "${rss[gs_tiffsep1]}" "${rss[gs_bitcmyk]}"
echo "goal: faster than Ghostscript, <= 3 s, peak RSS <= 256 MiB (ratio = gs / ours)"
