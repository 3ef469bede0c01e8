#!/usr/bin/env bash
# The demo command: installs what is missing, builds the demo in Release
# (build/demo) and runs the whole pipeline on the bundled frame. Extra
# arguments go to frcnn_demo (see build/demo/tools/frcnn_demo --help), e.g.
#   scripts/demo.sh --threads 4 --proposals
#   scripts/demo.sh --input my_frame_dir
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
mkdir -p build/demo
log=build/demo/build.log
if ! { cmake -S . -B build/demo -G Ninja -DCMAKE_BUILD_TYPE=Release -DOL_BUILD_TOOLS=ON \
         -DOL_BUILD_TESTS=OFF &&
       cmake --build build/demo --target frcnn_demo -j"$(nproc)"; } >"$log" 2>&1; then
  tail -n 40 "$log"
  echo "demo.sh: the build failed (full log: $log)" >&2
  exit 1
fi
exec build/demo/tools/frcnn_demo --out build/demo/frcnn_demo.png "$@"
