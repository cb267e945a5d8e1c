#!/usr/bin/env bash
# Fuzzes each parser and each repair for so many seconds: scripts/fuzz.sh [SECONDS [FUZZER...]]
# Inputs that lead on are kept in build/fuzz/corpus and used again; one that broke a promise is left in build/fuzz/found.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
source scripts/setup.sh

seconds=${1:-600}
shift || true
# shellcheck disable=SC2086
install_missing $tarn_packages clang
build fuzz fuzz/all

fuzzers=("$@")
[ ${#fuzzers[@]} -eq 0 ] && mapfile -t fuzzers < <(cd build/fuzz/fuzz && ls -- *_fuzzer)
mkdir -p build/fuzz/found
build/fuzz/fuzz/make_seeds build/fuzz/seeds

failed=0
for fuzzer in "${fuzzers[@]}"; do
  mkdir -p "build/fuzz/corpus/$fuzzer" "build/fuzz/seeds/$fuzzer"
  # A time and memory limit for each input, whose size is limited: no input may cost more than its size explains.
  if UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 "build/fuzz/fuzz/$fuzzer" -max_total_time="$seconds" -max_len=16384 -timeout=5 \
    -rss_limit_mb=1024 -malloc_limit_mb=128 -artifact_prefix="build/fuzz/found/$fuzzer-" -print_final_stats=1 \
    "build/fuzz/corpus/$fuzzer" "build/fuzz/seeds/$fuzzer" 2> "build/fuzz/$fuzzer.log"; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "build/fuzz/$fuzzer.log")
    echo "$fuzzer: $runs inputs in $seconds s, no fault"
  else
    failed=1
    echo "$fuzzer: FAULT, see build/fuzz/$fuzzer.log"
    grep -m 5 -E 'ERROR|SUMMARY|runtime error|deadly signal' "build/fuzz/$fuzzer.log" || true
  fi
done
exit $failed
