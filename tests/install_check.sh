#!/usr/bin/env bash
# Installs the library from a build tree into a scratch prefix, then builds
# and runs a consumer through the CMake package and through pkg-config.
set -euo pipefail
build=$1
src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
# The Python module, when built, finds the installed library by itself.
for m in "$tmp"/prefix/lib/python3/dist-packages/brennik_opt_layers*.so; do
  [ -e "$m" ] && PYTHONPATH="$(dirname "$m")" /usr/bin/python3 -c \
    "import brennik_opt_layers as m; assert m.__file__ == '$m' and m.version()['major'] == 1"
done
cmake -S "$src/examples/consumer" -B "$tmp/consumer" -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/consumer" >/dev/null
LD_LIBRARY_PATH="$tmp/prefix/lib" "$tmp/consumer/consumer"
libdir=$(ls -d "$tmp"/prefix/lib*/pkgconfig | head -n 1)
PKG_CONFIG_PATH="$libdir" c++ -std=c++17 "$src/examples/consumer/main.cpp" -o "$tmp/consumer_pc" \
  $(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs brennik_opt_layers)
LD_LIBRARY_PATH="$(dirname "$libdir")" "$tmp/consumer_pc"
# Only the interface is exported.
nm -D --defined-only "$(dirname "$libdir")/libbrennik_opt_layers.so.1" | awk '{print $3}' | c++filt |
  grep -v -E '^(opt_layers_|nms\(|roi_pooling|roi_align_|crop_and_resize_fmap_int16|ps_roi_pooling)' &&
  { echo "unexpected exported symbols"; exit 1; }
echo "install check passed"
