#!/usr/bin/env bash
# aarch64 instructions per call of each workload of the cost driver
# (bench/arm_cost.cpp): cross-builds it, runs every workload under
# qemu-aarch64 with an instruction-counting plugin at two repetition counts
# and prints the difference per call. Counts are deterministic.
#
#   scripts/arm_cost.sh [--build DIR] [--threads N] [--digest] [WORKLOAD...]
#
# --digest prints each workload's output digest instead (compare two builds
# with diff). ARM_INSNS points to the counting tool (default:
# ../shared/tools/arm-insns/arm-insns next to the project, then PATH).
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/arm-cost threads=1 digest=0
workloads=()
while [ $# -gt 0 ]; do
  case $1 in
    --build) build=$2; shift 2 ;;
    --threads) threads=$2; shift 2 ;;
    --digest) digest=1; shift ;;
    -*) echo "usage: $0 [--build DIR] [--threads N] [--digest] [WORKLOAD...]" >&2; exit 2 ;;
    *) workloads+=("$1"); shift ;;
  esac
done
tool=${ARM_INSNS:-}
if [ -z "$tool" ]; then
  for t in ../shared/tools/arm-insns/arm-insns /work/shared/tools/arm-insns/arm-insns; do
    [ -x "$t" ] && { tool=$t; break; }
  done
  [ -z "$tool" ] && tool=$(command -v arm-insns || true)
fi
if [ ! -f "$build/build.ninja" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
    -DOL_BUILD_TESTS=OFF -DOL_BUILD_TOOLS=OFF >/dev/null
fi
cmake --build "$build" --target ol_arm_cost -j2 >/dev/null
driver=$build/bench/ol_arm_cost
[ ${#workloads[@]} -eq 0 ] && mapfile -t workloads < <(qemu-aarch64 -L /usr/aarch64-linux-gnu "$driver" --list)

if [ $digest = 1 ]; then
  for w in "${workloads[@]}"; do
    qemu-aarch64 -L /usr/aarch64-linux-gnu "$driver" "$w" --threads "$threads" --digest
  done
  exit 0
fi
[ -n "$tool" ] || { echo "arm_cost.sh: arm-insns not found (set ARM_INSNS)" >&2; exit 2; }
count() {  # workload, reps -> instructions of the whole run
  "$tool" "$driver" "$1" --reps "$2" --threads "$threads" 2>&1 >/dev/null |
    sed -n 's/^insns \([0-9]*\)$/\1/p' | tail -n 1
}
# Calls 2 and 3 against call 1 alone: the first call's warm-up (queue nodes,
# first touches) cancels as well as start-up and input generation.
printf "%-28s %14s\n" workload "insns/call"
for w in "${workloads[@]}"; do
  a=$(count "$w" 1) b=$(count "$w" 3)
  printf "%-28s %14d\n" "$w" $(( (b - a) / 2 ))
done
