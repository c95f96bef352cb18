#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang++ (AddressSanitizer, UndefinedBehaviorSanitizer)
# in build-fuzz/ and runs each for a while, starting from its seeds in fuzz/corpus/<target>/.
#
#   scripts/fuzz.sh [-t SECONDS] [-j PARALLEL] [-u SECONDS] [TARGET...]
#
# -t  how long each target runs (default 30 s)
# -j  how many targets run at once (default 1)
# -u  the time one input may take before it counts as a finding (default 20 s: generous, as the
#     machine may be shared, and an input hangs only well beyond it)
# TARGET  SessionFuzzer, IniFuzzer, TimeFuzzer, WildcardFuzzer (default: all four)
#
# What a run finds besides the seeds goes to build-fuzz/corpus/<target>/ and is taken up by the
# next run; the seeds in fuzz/corpus/ are only read. A crash, leak, sanitizer report or time-out
# stops the target, leaves its input in build-fuzz/artifacts/ (<target>-crash-..., -leak-...,
# -timeout-...; replay it with build-fuzz/<target> FILE) and makes the script exit 1. The whole
# output of each target is in build-fuzz/logs/<target>.log.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=30
parallel=1
unit_seconds=20
while getopts "t:j:u:" option; do
  case "$option" in
    t) seconds="$OPTARG" ;;
    j) parallel="$OPTARG" ;;
    u) unit_seconds="$OPTARG" ;;
    *) sed -n '2,17p' "$0" >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then targets=(SessionFuzzer IniFuzzer TimeFuzzer WildcardFuzzer); fi

echo "==> Fuzz build in build-fuzz/ (clang++, libFuzzer, address, undefined, warnings as errors)"
cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DNORVANE_FUZZ=ON -DNORVANE_TESTS=OFF \
  -DNORVANE_WERROR=ON >/dev/null
cmake --build build-fuzz -j "$(nproc 2>/dev/null || echo 2)" --target "${targets[@]}"

mkdir -p build-fuzz/logs build-fuzz/artifacts
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"

# Runs one target in the background; its exit code is collected by wait.
start_target() {
  local target="$1"
  mkdir -p "build-fuzz/corpus/$target"
  # The first corpus directory receives the new inputs; the seeds are the second.
  "build-fuzz/$target" -max_total_time="$seconds" -timeout="$unit_seconds" -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="build-fuzz/artifacts/$target-" \
    "build-fuzz/corpus/$target" "fuzz/corpus/$target" >"build-fuzz/logs/$target.log" 2>&1 &
  pids+=("$!")
  names+=("$target")
}

# Waits for the running targets; prints a line for each and the end of the log of a failure.
finish_targets() {
  local i
  for i in "${!pids[@]}"; do
    local name="${names[$i]}" log="build-fuzz/logs/${names[$i]}.log"
    if wait "${pids[$i]}"; then
      local runs
      runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
      echo "    $name: ${runs:-?} executions in ${seconds} s, no finding"
    else
      echo "    $name: FAILED (whole output in $log):"
      tail -n 60 "$log" | sed 's/^/      /'
      failed+=("$name")
    fi
  done
  pids=()
  names=()
}

echo "==> Fuzzing ${#targets[@]} target(s), ${seconds} s each, ${parallel} at a time"
pids=()
names=()
failed=()
for target in "${targets[@]}"; do
  start_target "$target"
  if [ ${#pids[@]} -ge "$parallel" ]; then finish_targets; fi
done
finish_targets
if [ ${#failed[@]} -gt 0 ]; then
  echo "==> Fuzzing found problems in: ${failed[*]}; inputs in build-fuzz/artifacts/"
  exit 1
fi
echo "==> Fuzzing found nothing"
