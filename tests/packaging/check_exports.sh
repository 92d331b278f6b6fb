#!/usr/bin/env bash
# Checks the dynamic symbol table of the built shared library:
#   - the SONAME carries the major version;
#   - no C++ (mangled) name is exported;
#   - no name of the C library or the thread library is exported, and no name
#     that any library libzt loads defines too (we would interpose on it);
#   - every exported name belongs to one of the families listed in the
#     families file (one prefix per line).
#
# usage: check_exports.sh LIBRARY EXPECTED_SONAME FAMILIES_FILE [--sanitized]
#   --sanitized  accept the registration names sanitizer instrumentation adds.
set -euo pipefail
export LC_ALL=C

if [[ $# -lt 3 ]]; then
  echo "usage: $0 LIBRARY EXPECTED_SONAME FAMILIES_FILE [--sanitized]" >&2
  exit 2
fi
lib=$1
expected_soname=$2
families_file=$3
sanitized=0
if [[ ${4:-} == --sanitized ]]; then
  sanitized=1
fi

for tool in nm readelf; do
  if ! command -v "$tool" >/dev/null; then
    echo "error: $tool not found (install binutils)" >&2
    exit 2
  fi
done
[[ -f $lib ]] || { echo "error: no library at $lib" >&2; exit 2; }
[[ -f $families_file ]] || { echo "error: no families file at $families_file" >&2; exit 2; }

failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# --- SONAME ---------------------------------------------------------------
soname=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\].*/\1/p')
if [[ $soname != "$expected_soname" ]]; then
  fail "SONAME is '${soname:-<none>}', expected '$expected_soname'"
fi

# --- The exported names -----------------------------------------------------
# nm prints "address type name" (or "type name" for absolute symbols); the
# name may carry "@VERSION" or "@@VERSION".
defined_names() {
  nm -D --defined-only "$1" | awk '{ print $NF }' | sed 's/@.*//' | sort -u
}
exported=$(defined_names "$lib")
count=$(printf '%s\n' "$exported" | grep -c . || true)
if [[ $count -eq 0 ]]; then
  fail "the library exports nothing"
fi

# Families: comments and blank lines dropped, one prefix per line.
mapfile -t families < <(sed -e 's/#.*//' -e 's/[[:space:]]//g' "$families_file" | grep -v '^$')

# Names the linker itself defines in every shared object.
linker_names_re='^(_init|_fini|_edata|_end|__bss_start)$'
# What sanitizer instrumentation registers in an instrumented object.
sanitizer_names_re='^(___?asan|__odr_asan|__ubsan|__tsan|__lsan|__sanitizer)'
# C library and thread-library names, spelled out so that the reason is clear
# even where the loaded libraries cannot be listed below. The library's own
# pthread_taskq_ and pthread_queue_ families are not thread-library names.
libc_names_re='^(pthread_(create|join|tryjoin_np|timedjoin_np|detach|self|equal|exit|kill|sigmask|cancel|testcancel|setcancelstate|setcanceltype|once|yield|atfork|key_[a-z]+|getspecific|setspecific|attr_[a-z_]+|mutex_[a-z_]+|mutexattr_[a-z_]+|cond_[a-z_]+|condattr_[a-z_]+|rwlock_[a-z_]+|rwlockattr_[a-z_]+|spin_[a-z_]+|barrier_[a-z_]+|barrierattr_[a-z_]+|[gs]etname_np|[gs]etaffinity_np|[gs]etschedparam|setschedprio|[gs]etconcurrency|getcpuclockid|cleanup_[a-z_]+)|sem_[a-z_]+|sleep|usleep|nanosleep|clock_nanosleep|sched_yield|random|srandom|initstate|setstate|rand|srand|rand_r|drand48|srand48|lrand48|strcasecmp|strncasecmp|stricmp|strnicmp|strdup|strndup|strlcpy|strlcat|malloc|calloc|realloc|reallocarray|free|aligned_alloc|posix_memalign|memalign|valloc|memcpy|memmove|memset|memcmp|memchr|strlen|strcpy|strncpy|strcmp|strncmp|strcat|strncat|strchr|strrchr|strstr|printf|fprintf|sprintf|snprintf|vsnprintf|fopen|fclose|fread|fwrite|open|close|read|write|time|gettimeofday|clock_gettime|localtime|localtime_r|gmtime|gmtime_r|mktime|getenv|setenv|abort|exit|atexit|qsort|bsearch)$'

# Names that a library libzt loads defines as well; ldd resolves them the way
# the loader does.
declare -A shadowed=()
if command -v ldd >/dev/null; then
  while read -r dep; do
    [[ -f $dep ]] || continue
    while read -r name; do
      if [[ -n $name ]]; then
        shadowed[$name]=$(basename "$dep")
      fi
    done < <(comm -12 <(printf '%s\n' "$exported") <(defined_names "$dep"))
  done < <(ldd "$lib" 2>/dev/null | awk '/=> \// { print $3 }')
fi

checked=0
while read -r name; do
  [[ -n $name ]] || continue
  if [[ $name =~ $linker_names_re ]]; then
    continue
  fi
  if [[ $sanitized -eq 1 && $name =~ $sanitizer_names_re ]]; then
    continue
  fi
  checked=$((checked + 1))
  if [[ $name == _Z* ]]; then
    fail "C++ name exported: $name ($(c++filt "$name" 2>/dev/null || echo "$name"))"
    continue
  fi
  if [[ $name =~ $libc_names_re ]]; then
    fail "C library or thread-library name exported: $name"
    continue
  fi
  if [[ -n ${shadowed[$name]:-} ]]; then
    fail "exported name also defined by ${shadowed[$name]}, which libzt loads: $name"
    continue
  fi
  allowed=0
  for prefix in "${families[@]}"; do
    if [[ $name == "$prefix"* ]]; then
      allowed=1
      break
    fi
  done
  if [[ $allowed -eq 0 ]]; then
    fail "name outside the library's families: $name (add its family to $(basename "$families_file") if it is meant to be exported)"
  fi
done <<<"$exported"

echo "checked $checked exported names of $(basename "$lib") (SONAME ${soname:-<none>})"
if [[ $failures -gt 0 ]]; then
  echo "$failures problem(s) found"
  exit 1
fi
echo "exports OK"
