#!/bin/sh
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer) in
# BUILD and runs every one of them.
#
#   fuzz.sh run BUILD [SECONDS]  each target for SECONDS (default 60), growing a working corpus
#                                in BUILD/corpus/TARGET from the seeds in fuzz/corpus/TARGET
#                                (with the dictionary fuzz/dict/TARGET.dict where there is one)
#   fuzz.sh smoke BUILD [RUNS]   each target over its seeds and RUNS more inputs (default 5000)
#                                from a fixed random seed, in a scratch corpus: the short check
#                                that ctest runs
#
# Exits non-zero when the build fails or a target finds a crash, a leak, undefined behaviour or a
# broken property; the input that did it is kept in BUILD/artifacts and the log in BUILD/logs.
# JOBS sets the build's parallelism (default 2).
set -u

mode=${1:-}
build=${2:-}
case "$mode" in
  run) amount=${3:-60} ;;
  smoke) amount=${3:-5000} ;;
  *) echo "usage: $0 run|smoke BUILD [SECONDS|RUNS]" >&2; exit 2 ;;
esac
[ -n "$build" ] || { echo "usage: $0 run|smoke BUILD [SECONDS|RUNS]" >&2; exit 2; }

source_dir=$(cd "$(dirname "$0")/.." && pwd)
cxx=$(command -v clang++ || command -v clang++-14) || {
  echo "clang++ not found: make deps installs it" >&2
  exit 1
}
cc=$(command -v clang || command -v clang-14)

# Warnings are the ordinary build's business; this build looks for faults at run time, and must
# not stop on a warning that only clang gives.
mkdir -p "$build"
cmake -S "$source_dir" -B "$build" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVANTU_FUZZ=ON -DBUILD_TESTING=OFF -DVANTU_WERROR=OFF \
  >"$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }
cmake --build "$build" -j "${JOBS:-2}" --target fuzz_targets >"$build/build.log" 2>&1 ||
  { tail -n 60 "$build/build.log"; exit 1; }

mkdir -p "$build/artifacts" "$build/logs"
# In the build folder, not in TMPDIR: a target that gives itself a private /dev/shm would no
# longer see a corpus there.
scratch=$(mktemp -d "$build/scratch.XXXXXX")
trap 'rm -rf "$scratch"' EXIT INT TERM
# A leak or undefined behaviour ends the run like a crash; the sanitizers' settings from the
# caller's environment do not apply here.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# The targets' sandboxes go to memory when they can: the stores and the preferences sync every
# save, which costs the disk far more than the input costs the code.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
  export TMPDIR=/dev/shm
fi

failed=0
for source in "$source_dir"/fuzz/*_fuzz.cpp; do
  target=$(basename "$source" .cpp)
  seeds="$source_dir/fuzz/corpus/$target"
  log="$build/logs/$target.log"
  if [ ! -d "$seeds" ]; then
    echo "$target: no seed corpus in fuzz/corpus/$target"
    failed=1
    continue
  fi
  if [ "$mode" = run ]; then
    corpus="$build/corpus/$target"
    limit="-max_total_time=$amount"
  else
    corpus="$scratch/$target"
    limit="-runs=$amount -seed=1"
  fi
  mkdir -p "$corpus"
  # Markup and names the mutator would take long to spell out by chance, where a target has them.
  words="$source_dir/fuzz/dict/$target.dict"
  dictionary=""
  [ -f "$words" ] && dictionary="-dict=$words"
  start=$(date +%s%N)
  # shellcheck disable=SC2086
  "$build/fuzz/$target" $limit $dictionary -timeout=25 -print_final_stats=1 \
    -artifact_prefix="$build/artifacts/$target-" "$corpus" "$seeds" >"$log" 2>&1
  status=$?
  elapsed_ms=$((($(date +%s%N) - start) / 1000000 + 1))
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  summary='s/.*DONE *cov: \([0-9]*\).* corp: \([0-9]*\)\/\([^ ]*\).*/cov \1, corpus \2 (\3)/p'
  coverage=$(sed -n "$summary" "$log")
  if [ "$status" -eq 0 ]; then
    seconds=$(printf '%d.%d' $((elapsed_ms / 1000)) $((elapsed_ms % 1000 / 100)))
    speed=$((${runs:-0} * 1000 / elapsed_ms))
    echo "$target: ${runs:-0} runs in $seconds s ($speed/s), ${coverage:-?}"
  else
    echo "$target: FAILED (exit $status), log $log"
    grep -E 'ERROR|SUMMARY|property violated|failed assertion|runtime error|Test unit written' \
      "$log" | head -n 20
    failed=1
  fi
done
exit $failed
