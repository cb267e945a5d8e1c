#!/usr/bin/env bash
# Fuzzes each parser and each repair for so many seconds: scripts/fuzz.sh [SECONDS [FUZZER...]]
# Begins with fuzz/corpus and with seeds of movies that it makes. Inputs that lead on are kept in build/asan/fuzz/corpus
# and used again; one that broke a promise is left in build/asan/fuzz/found.
#
# scripts/fuzz.sh keep [FUZZER...] puts into fuzz/corpus as few of these inputs as reach what all of them reach, without
# those that the seeds reach by themselves.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
source scripts/setup.sh

# fuzz NAME SECONDS: one of them.
fuzz() {
  local log=$place/$1.log
  # A time and memory limit for each input, whose size is limited: no input may cost more than its size explains.
  if "$place/$1" -max_total_time="$2" -max_len=16384 -timeout=5 -rss_limit_mb=1024 -malloc_limit_mb=128 \
    -artifact_prefix="$place/found/$1-" -print_final_stats=1 "$place/corpus/$1" "$place/kept/$1" "$place/seeds/$1" 2>"$log"; then
    echo "$1: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") inputs in $2 s, no fault"
  else
    echo "$1: FAULT, see $log"
    grep -m 5 -E 'ERROR|SUMMARY|runtime error|deadly signal' "$log" || true
    return 1
  fi
}

# keep NAME: the corpus of one of them.
keep() {
  local least=$place/least/$1
  rm -rf "$least" && mkdir -p "$least" fuzz/corpus
  cp "$place/seeds/$1"/* "$least" 2>/dev/null || true
  "$place/$1" -set_cover_merge=1 -use_counters=0 -max_len=16384 -timeout=5 "$least" "$place/kept/$1" "$place/corpus/$1" \
    2>"$place/$1.keep.log"
  (cd "$least" && rm -f seed*)
  tar --sort=name --mtime=@0 --owner=0 --group=0 --numeric-owner -C "$least" -cf - . | xz -9e >"fuzz/corpus/$1.tar.xz"
  echo "$1: $(ls "$least" | wc -l) inputs, $(stat -c %s "fuzz/corpus/$1.tar.xz") bytes"
}

work=${1:-600}
shift || true
# shellcheck disable=SC2086
install_missing $tarn_packages clang xz-utils
build asan fuzz/all

place=build/asan/fuzz
fuzzers=("$@")
[ ${#fuzzers[@]} -eq 0 ] && mapfile -t fuzzers < <(cd $place && ls -- *_fuzzer)
mkdir -p $place/found
$place/make_seeds $place/seeds
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

failed=0
for fuzzer in "${fuzzers[@]}"; do
  rm -rf "$place/kept/$fuzzer"
  mkdir -p $place/{corpus,kept,seeds}/"$fuzzer"
  [ ! -f "fuzz/corpus/$fuzzer.tar.xz" ] || tar -C "$place/kept/$fuzzer" -xJf "fuzz/corpus/$fuzzer.tar.xz"
  if [ "$work" = keep ]; then keep "$fuzzer"; else fuzz "$fuzzer" "$work" || failed=1; fi
done
exit $failed
