#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build/fuzz (or $OL_FUZZ_DIR)
# and runs each for a fixed number of executions, one target at a time,
# keeping a corpus per target in <build dir>/corpus/<target>. The seed
# inputs in fuzz/corpus/<target> (a minimised corpus of earlier long runs)
# are read first and never written.
#
#   scripts/fuzz.sh [-n RUNS] [-t SECONDS] [TARGET...]
#     -n RUNS     executions per target (default 100000)
#     -t SECONDS  time cap per target (default 0: none)
#     TARGET      nms roi_pooling roi_align crop_and_resize ps_roi_pooling
#                 pipeline (default: all)
#
# Prints one line per target: "fuzz <target>: <runs> runs, ok" or the
# failure; crash inputs are left in build/fuzz/crash-<target>-*. Exit status
# is non-zero when any target failed.
set -uo pipefail
cd "$(dirname "$0")/.."

runs=100000
secs=0
while getopts "n:t:" o; do
  case $o in
    n) runs=$OPTARG ;;
    t) secs=$OPTARG ;;
    *) echo "usage: $0 [-n RUNS] [-t SECONDS] [TARGET...]" >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(nms roi_pooling roi_align crop_and_resize ps_roi_pooling pipeline)

dir=${OL_FUZZ_DIR:-build/fuzz}
mkdir -p "$dir"
if ! CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
     -DOL_BUILD_FUZZ=ON -DOL_BUILD_TESTS=OFF -DOL_BUILD_TOOLS=OFF >"$dir.configure.log" 2>&1; then
  cat "$dir.configure.log"; echo "fuzz: configure failed"; exit 1
fi
if ! cmake --build "$dir" -j2 >"$dir.build.log" 2>&1; then
  tail -n 40 "$dir.build.log"; echo "fuzz: build failed"; exit 1
fi

status=0
for t in "${targets[@]}"; do
  bin=$dir/fuzz/fuzz_$t
  [ -x "$bin" ] || { echo "fuzz $t: no such target"; status=1; continue; }
  mkdir -p "$dir/corpus/$t"
  seeds=fuzz/corpus/$t
  [ -d "$seeds" ] || seeds=
  log=$dir/fuzz_$t.log
  # Leak detection runs after every input whose allocations do not balance;
  # the pipeline starts and joins worker threads in every input, which makes
  # that a full heap scan each time. Its leaks are checked by the test suite
  # (LeakSanitizer, valgrind) instead.
  # The pipeline's run time per input spans four orders of magnitude (a few
  # ROIs to tens of thousands): inputs that run faster are scheduled more.
  # No input may take two minutes even under the sanitizers: anything slower
  # is reported as a hang (a timeout crash) rather than stalling the run.
  extra=(-timeout=120)
  [ "$t" = pipeline ] && extra+=(-detect_leaks=0 -entropic_scale_per_exec_time=1)
  "$bin" -runs="$runs" -max_total_time="$secs" -len_control=0 -rss_limit_mb=4096 \
    -print_final_stats=1 -artifact_prefix="$dir/crash-$t-" "${extra[@]}" "$dir/corpus/$t" \
    ${seeds:+"$seeds"} >"$log" 2>&1
  rc=$?
  done_runs=$(grep -E '^stat::number_of_executed_units' "$log" | awk '{print $2}')
  if [ $rc -eq 0 ]; then
    echo "fuzz $t: ${done_runs:-?} runs, ok"
  else
    grep -E 'ERROR|SUMMARY|check failed|runtime error' "$log" | head -n 5
    echo "fuzz $t: ${done_runs:-?} runs, FAILED (log $log)"
    status=1
  fi
done
exit $status
