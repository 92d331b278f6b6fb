# Sourced by the tools tests that split a job into slices and merge them.
#
# same_pages ZT WHOLE.vlimg MERGED.vlimg SCRATCH
# MERGED must hold the pages of WHOLE byte for byte (every plane, extracted),
# with the same headers and tile sizes; only where a page sits in its file and
# which pages began a file may differ. Prints one line a difference and
# returns 1 if there is any. SCRATCH is a folder for the extracted pages.
same_pages() {
  local zt=$1 whole=$2 merged=$3 scratch=$4 n m p status=0
  n=$("$zt" info "$whole" | sed -n '1s/^.*: \([0-9]*\) page(s)$/\1/p')
  m=$("$zt" info "$merged" | sed -n '1s/^.*: \([0-9]*\) page(s)$/\1/p')
  if [[ -z $n || $n != "$m" ]]; then
    echo "$merged has ${m:-no} pages, $whole ${n:-no}"
    return 1
  fi
  for ((p = 1; p <= n; p++)); do
    if ! "$zt" extract "$whole" --page "$p" -o "$scratch/same-whole-$p.tif" ||
      ! "$zt" extract "$merged" --page "$p" -o "$scratch/same-merged-$p.tif"; then
      echo "page $p cannot be extracted"
      status=1
    elif ! cmp -s "$scratch/same-whole-$p.tif" "$scratch/same-merged-$p.tif"; then
      echo "page $p of $merged differs from the single run's"
      status=1
    fi
    rm -f "$scratch/same-whole-$p.tif" "$scratch/same-merged-$p.tif"
  done
  if ! diff <("$zt" info "$whole" | sed 1d | grep -v -e next_page_offset -e new_file) \
    <("$zt" info "$merged" | sed 1d | grep -v -e next_page_offset -e new_file) >/dev/null; then
    echo "headers or tile sizes of $merged differ from the single run's"
    status=1
  fi
  return $status
}
