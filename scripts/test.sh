#!/usr/bin/env bash
# The test command: installs what is missing, then builds and runs the whole
# suite natively, under AddressSanitizer + UndefinedBehaviorSanitizer, the
# threaded tests under ThreadSanitizer, and the aarch64 cross build under
# qemu-aarch64. Prints ctest's summary for each and fails if any failed.
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh || exit 1

jobs=$(nproc)
out=build/test
mkdir -p "$out"
declare -a summary
status=0

run_build() {  # name, ctest args, cmake args...
  local name=$1 ctest_args=$2
  shift 2
  local dir=$out/$name start=$SECONDS
  echo "=== $name: configure and build"
  if ! cmake -S . -B "$dir" -G Ninja -DOL_BUILD_TOOLS=ON "$@" >"$dir.configure.log" 2>&1; then
    cat "$dir.configure.log"; summary+=("$name: configure failed"); status=1; return
  fi
  # A run restricted to a label builds only the programs of its tests.
  local targets=()
  if [[ " $ctest_args " == *" -L "* ]]; then
    mapfile -t targets < <(cd "$dir" && ctest -N $ctest_args | sed -n 's/^ *Test *#[0-9]*: //p')
  fi
  if ! cmake --build "$dir" -j"$jobs" ${targets[@]+--target "${targets[@]}"} >"$dir.build.log" 2>&1; then
    tail -n 60 "$dir.build.log"; summary+=("$name: build failed"); status=1; return
  fi
  local built=$SECONDS
  echo "=== $name: ctest"
  local log=$dir.ctest.log
  (cd "$dir" && ctest --output-on-failure -j"$jobs" $ctest_args) >"$log" 2>&1
  local rc=$?
  grep -E "tests passed|tests failed|^\s+[0-9]+ - |Failed|\*\*\*" "$log" | tail -n 20
  [ $rc -ne 0 ] && { tail -n 200 "$log"; status=1; }
  summary+=("$name: $(grep -E 'tests passed' "$log" | tail -n 1) (build $((built - start)) s, tests $((SECONDS - built)) s)")
}

mkdir -p "$out"
run_build native "" -DCMAKE_BUILD_TYPE=Release -DOL_BUILD_PYTHON=ON
run_build asan-ubsan "" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOL_SANITIZE=address -DOL_BUILD_PYTHON=ON
# ThreadSanitizer needs a fixed address-space layout on kernels with high
# mmap randomisation.
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  run_build tsan "-L threaded" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOL_SANITIZE=thread
run_build aarch64 "" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake

# Fuzz smoke pass: every libFuzzer target for a few seconds (clang build).
echo "=== fuzz-smoke"
fuzz_start=$SECONDS
fuzz_log=$out/fuzz-smoke.log
OL_FUZZ_DIR=$out/fuzz scripts/fuzz.sh -n 1000000 -t 4 >"$fuzz_log" 2>&1
fuzz_rc=$?
cat "$fuzz_log"
fuzz_ok=$(grep -c ', ok$' "$fuzz_log")
fuzz_bad=$(grep -c 'FAILED\|failed\|no such target' "$fuzz_log")
[ $fuzz_rc -ne 0 ] && { status=1; [ "$fuzz_bad" -eq 0 ] && fuzz_bad=1; }
summary+=("fuzz-smoke: $fuzz_ok targets passed, $fuzz_bad failed ($((SECONDS - fuzz_start)) s)")

echo "=== summary ($SECONDS s in all)"
for s in "${summary[@]}"; do echo "$s"; done
exit $status
