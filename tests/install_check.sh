#!/usr/bin/env bash
# Installs the library from a build tree into a scratch root, builds and runs
# a consumer through the CMake package and through pkg-config, and checks
# that the library, the packages and the version record agree on the version.
#   install_check.sh BUILD SRC        cmake --install into a scratch prefix
#   install_check.sh BUILD SRC deb    the build's Debian packages (made by
#                                     scripts/package.sh), unpacked together
set -euo pipefail
build=$1
src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
. "$build/package.env"
fail() { echo "install check: $*"; exit 1; }
if [ "${3:-}" = deb ]; then
  prefix=$tmp/root/usr
  debs=$("$src/scripts/package.sh" --from "$build" "$tmp/debs")
  for deb in $debs; do
    dpkg-deb -x "$deb" "$tmp/root"
    [ "$(dpkg-deb -f "$deb" Version)" = "$ol_version-1" ] || fail "$deb: version"
  done
else
  prefix=$tmp/prefix
  cmake --install "$build" --prefix "$prefix" >/dev/null
fi
libdir=$prefix/$ol_libdir
# The Python module, when built, finds the installed library by itself.
for m in "$prefix"/lib/python3/dist-packages/brennik_opt_layers*.so; do
  [ -e "$m" ] && PYTHONPATH="$(dirname "$m")" /usr/bin/python3 -c \
    "import brennik_opt_layers as m; assert m.__file__ == '$m' and m.version()['major'] == 1"
done
export LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig
cmake -S "$src/examples/consumer" -B "$tmp/consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/consumer" >/dev/null
"$tmp/consumer/consumer" | tee "$tmp/out"
c++ -std=c++17 "$src/examples/consumer/main.cpp" -o "$tmp/consumer_pc" \
  $(pkg-config --cflags --libs brennik_opt_layers)
"$tmp/consumer_pc" | cmp - "$tmp/out"

# One version everywhere: the version record, the .pc file, the CMake
# package and the SONAME.
[ "$(head -n 1 "$tmp/out")" = "Norvantix Faster RCNN Library $ol_version" ] || fail "version record"
[ "$(pkg-config --modversion brennik_opt_layers)" = "$ol_version" ] || fail "pkg-config version"
grep -q "PACKAGE_VERSION \"$ol_version\"" "$libdir"/cmake/brennik_opt_layers/*-config-version.cmake ||
  fail "CMake package version"
readelf -d "$libdir/libbrennik_opt_layers.so" |
  grep -q "SONAME.*\[libbrennik_opt_layers.so.${ol_version%%.*}\]" || fail "SONAME"

# Only the interface is exported.
nm -D --defined-only "$libdir/libbrennik_opt_layers.so" | awk '{print $3}' | c++filt |
  grep -v -E '^(opt_layers_|nms\(|roi_pooling|roi_align_|crop_and_resize_fmap_int16|ps_roi_pooling)' &&
  fail "unexpected exported symbols"
echo "install check passed"
