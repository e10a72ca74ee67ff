#!/usr/bin/env bash
# Fuzzes the whole conversion (no package, man, me, ms, my; classic and full
# mode) under AddressSanitizer and UndefinedBehaviorSanitizer with libFuzzer.
#   scripts/fuzz.sh [SECONDS] [JOBS]      default: 120 seconds, 1 job
#   FUZZ_FULL_ONLY=1 scripts/fuzz.sh ...  every input in the full mode
# A finding (crash, sanitizer report, hang over 10 s, memory over 2 GiB)
# fails the run; the input is left in fuzz/artifacts/ and must be added to
# fuzz/regressions/ with the fix. The executions of each run, and how many of
# them were in the full mode, are added to fuzz/executions.log.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-120}
jobs=${2:-1}
build=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTROFFTOVIF_FUZZ=ON -DTROFFTOVIF_SANITIZE=ON -DTROFFTOVIF_TESTS=OFF -DTROFFTOVIF_TREE=OFF >/dev/null
cmake --build "$build" -j2 --target fuzz_convert >/dev/null

# Seeds: every end-to-end input, its first byte naming the package it runs
# with (0 to 4) and the mode (plus 5: the full mode). A case run with --full
# is a full-mode seed; any other is a seed in both modes.
seeds=$build/seeds
rm -rf "$seeds"
mkdir -p "$seeds" fuzz/artifacts fuzz/corpus-work
n=0
while IFS= read -r -d '' tr; do
  args=${tr%.tr}.args
  words=""
  [ -f "$args" ] && words=$(tr -d '\0' < "$args")
  package=0
  case "$words" in
    # An mdoc page runs as man: in the full mode -man reads a page whose
    # first macro is Dd with the mdoc package.
    *-man* | *-mdoc*) package=1 ;; *-me*) package=2 ;; *-ms*) package=3 ;; *-my*) package=4 ;;
  esac
  modes="0 5"
  case "$words" in *--full*) modes=5 ;; esac
  for mode in $modes; do
    { printf "\\$(printf '%03o' $((package + mode)))"; cat "$tr"; } > "$seeds/seed-$n"
    n=$((n + 1))
  done
done < <(find tests/cases -name '*.tr' -print0)
cp fuzz/regressions/* "$seeds/" 2>/dev/null || true

export TMPDIR=${TMPDIR:-/dev/shm}
# No fill pattern for new allocations and a smaller quarantine: the same
# checks, with less time spent touching memory between runs.
export ASAN_OPTIONS=${ASAN_OPTIONS:-max_malloc_fill_size=0:quarantine_size_mb=32}
log=$build/fuzz.log
# Each fuzzing process adds the inputs it ran in each mode here at its end.
export FUZZ_MODE_COUNTS=$PWD/$build/mode-counts
rm -f "$FUZZ_MODE_COUNTS"
started=$(date +%s)
set +e
"$build/fuzz_convert" fuzz/corpus-work "$seeds" -dict=fuzz/troff.dict \
  -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
  -jobs="$jobs" -workers="$jobs" -close_fd_mask=2 -print_final_stats=1 \
  -artifact_prefix=fuzz/artifacts/ 2>"$log"
status=$?
set -e
# With several jobs each worker writes fuzz-N.log; count the executions there
# (libFuzzer may echo the workers' logs into its own as well).
stats=$log
if [ "$jobs" -gt 1 ]; then stats=$(ls fuzz-*.log 2>/dev/null || echo "$log"); fi
runs=$(cat $stats | grep -h 'stat::number_of_executed_units' | awk '{s += $2} END {print s + 0}')
if [ "$jobs" -gt 1 ]; then cat fuzz-*.log >>"$log" 2>/dev/null; rm -f fuzz-*.log; fi
elapsed=$(( $(date +%s) - started ))
# A process that ends on a finding writes no count: the figure is then left out.
if [ -s "$FUZZ_MODE_COUNTS" ] && [ "$status" -eq 0 ]; then
  full=$(awk '{s += $4} END {print s + 0}' "$FUZZ_MODE_COUNTS")
  modes="$full in full mode"
else
  modes="full-mode count not available"
fi
[ "${FUZZ_FULL_ONLY:-}" = 1 ] && modes="$modes; full mode only"
echo "$(date -u +%Y-%m-%dT%H:%M:%SZ) $runs executions ($modes) in ${elapsed}s with $jobs job(s), status $status" | tee -a fuzz/executions.log
if [ "$status" -ne 0 ]; then
  grep -E 'ERROR|SUMMARY|Test unit written|timeout' "$log" | head -20
  echo "fuzzing found a problem: see $log and fuzz/artifacts/"
  exit 1
fi
