#!/usr/bin/env bash
# Fuzzes each parser and each repair for so many seconds: scripts/fuzz.sh [SECONDS [FUZZER...]]
# Inputs that lead on are kept in build/asan/fuzz/corpus and used again; one that broke a promise is left in build/asan/fuzz/found.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
source scripts/setup.sh

seconds=${1:-600}
shift || true
# shellcheck disable=SC2086
install_missing $tarn_packages clang
build asan fuzz/all

fuzzers=("$@")
[ ${#fuzzers[@]} -eq 0 ] && mapfile -t fuzzers < <(cd build/asan/fuzz && ls -- *_fuzzer)
mkdir -p build/asan/fuzz/found
build/asan/fuzz/make_seeds build/asan/fuzz/seeds

failed=0
for fuzzer in "${fuzzers[@]}"; do
  mkdir -p "build/asan/fuzz/corpus/$fuzzer" "build/asan/fuzz/seeds/$fuzzer"
  # A time and memory limit for each input, whose size is limited: no input may cost more than its size explains.
  if UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 "build/asan/fuzz/$fuzzer" -max_total_time="$seconds" -max_len=16384 -timeout=5 \
    -rss_limit_mb=1024 -malloc_limit_mb=128 -artifact_prefix="build/asan/fuzz/found/$fuzzer-" -print_final_stats=1 \
    "build/asan/fuzz/corpus/$fuzzer" "build/asan/fuzz/seeds/$fuzzer" 2> "build/asan/fuzz/$fuzzer.log"; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "build/asan/fuzz/$fuzzer.log")
    echo "$fuzzer: $runs inputs in $seconds s, no fault"
  else
    failed=1
    echo "$fuzzer: FAULT, see build/asan/fuzz/$fuzzer.log"
    grep -m 5 -E 'ERROR|SUMMARY|runtime error|deadly signal' "build/asan/fuzz/$fuzzer.log" || true
  fi
done
exit $failed
