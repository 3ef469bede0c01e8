#!/usr/bin/env bash
# The packaging command: installs what is missing, builds the library for
# amd64 (native) and arm64 (cross, cmake/aarch64-linux-gnu.cmake) in
# build/package/<arch> and makes the Debian packages in build/package/debs:
#   libbrennik-opt-layers1      the versioned library and its SONAME link
#   libbrennik-opt-layers-dev   header, .so link, CMake package, .pc file
#   python3-brennik-opt-layers  the Python module (amd64, when the build
#                               installs a "python" component)
# Then runs lintian on each (fails on any error), checks that the arm64
# library is an aarch64 ELF with the SONAME, and builds and runs
# examples/consumer against the amd64 packages unpacked into a scratch root.
#
#   scripts/package.sh                        all of the above
#   scripts/package.sh --from BUILD OUTDIR    only package an existing build
#                                             tree (nothing is rebuilt)
set -euo pipefail
shopt -s inherit_errexit
src=$(cd "$(dirname "$0")/.." && pwd)
maintainer="Norvantix packaging <packaging@norvantix.example>"

# Packages the build tree $1 into the directory $2 and prints the paths of
# the .deb files made.
make_debs() {
  local build out ol_version ol_soversion ol_libdir ol_python ol_build_date ol_multiarch
  build=$(cd "$1" && pwd)
  mkdir -p "$2"
  out=$(cd "$2" && pwd)
  # shellcheck source=/dev/null
  . "$build/package.env"
  [ -n "$ol_multiarch" ] || { echo "package.sh: no multiarch triplet in $build" >&2; return 1; }
  local arch deb_version date stage
  arch=$(dpkg-architecture -t"$ol_multiarch" -qDEB_HOST_ARCH 2>/dev/null)
  deb_version=$ol_version-1
  date=$(date -R -u -d "$ol_build_date")
  stage=$(mktemp -d)

  # name, component, section, Depends beyond the computed ones, Multi-Arch,
  # synopsis, description
  one_deb() {
    local name=$1 component=$2 section=$3 depends=$4 multi_arch=$5 synopsis=$6 description=$7
    local root=$stage/$name doc f elves=()
    DESTDIR=$root cmake --install "$build" --prefix /usr --component "$component" >/dev/null
    doc=$root/usr/share/doc/$name
    mkdir -p "$doc" "$root/DEBIAN"
    cp "$src/cmake/debian/copyright" "$doc/copyright"
    printf '%s (%s) unstable; urgency=medium\n\n  * Release %s.\n\n -- %s  %s\n' \
      brennik-opt-layers "$deb_version" "$ol_version" "$maintainer" "$date" |
      gzip -9n >"$doc/changelog.Debian.gz"
    find "$root" -type d -exec chmod 0755 {} +
    find "$root" -type f -exec chmod 0644 {} +
    while IFS= read -r f; do
      "$ol_multiarch-strip" --strip-unneeded --remove-section=.comment --remove-section=.note "$f"
      elves+=("$f")
    done < <(find "$root/usr" -type f -name '*.so*')
    if [ ${#elves[@]} -gt 0 ]; then
      f=$(shlib_depends "${elves[@]}") && [ -n "$f" ] ||
        { echo "package.sh: no dependencies found for $name" >&2; return 1; }
      depends=$f${depends:+, $depends}
    fi
    {
      echo "Package: $name"
      echo "Source: brennik-opt-layers"
      echo "Version: $deb_version"
      echo "Architecture: $arch"
      [ -n "$multi_arch" ] && echo "Multi-Arch: $multi_arch"
      echo "Maintainer: $maintainer"
      echo "Installed-Size: $(du -sk --exclude=DEBIAN "$root" | cut -f1)"
      [ -n "$depends" ] && echo "Depends: $depends"
      echo "Section: $section"
      echo "Priority: optional"
      echo "Description: $synopsis"
      echo "$description" | sed 's/^$/./; s/^/ /'
    } >"$root/DEBIAN/control"
    (cd "$root" && find usr -type f | LC_ALL=C sort | xargs md5sum) >"$root/DEBIAN/md5sums"
    chmod 0644 "$root"/DEBIAN/*
    dpkg-deb --root-owner-group -Zxz --build "$root" "$out/${name}_${deb_version}_$arch.deb" >/dev/null
    echo "$out/${name}_${deb_version}_$arch.deb"
  }

  # Runtime dependencies of the ELF files given, from the shlibs and symbols
  # files of the libraries they link: this build's library (for the Python
  # module) from the runtime package staged here, a cross build's system
  # libraries from the cross toolchain (/usr/<triplet>/lib), whose shlibs
  # name the packages with an architecture qualifier.
  shlib_depends() {
    local dir
    dir=$(mktemp -d)
    mkdir "$dir/debian"
    touch "$dir/debian/control"
    (cd "$dir" && dpkg-shlibdeps -O -S"$stage/$lib" -l"/usr/$ol_multiarch/lib" "$@") |
      sed -n "s/^shlibs:Depends=//; s/:$arch//g; p"
    rm -rf "$dir"
  }

  local lib=libbrennik-opt-layers$ol_soversion
  local about="Post-processing for two-stage (Faster R-CNN) object detectors on the CPU:
proposals from the region-proposal network's outputs, ROI pooling of a
16-bit feature map, per-class detections, and standalone feature-map
operators (NMS, ROI pooling, ROI align, crop-and-resize, position-sensitive
ROI pooling)."
  mkdir -p "$stage/$lib/DEBIAN"
  echo "activate-noawait ldconfig" >"$stage/$lib/DEBIAN/triggers"
  echo "libbrennik_opt_layers $ol_soversion $lib (>= $ol_version)" >"$stage/$lib/DEBIAN/shlibs"
  one_deb "$lib" runtime libs "" same \
    "Faster R-CNN post-processing layers (shared library)" "$about

This package contains the shared library."
  one_deb libbrennik-opt-layers-dev development libdevel "$lib (= $deb_version)" same \
    "Faster R-CNN post-processing layers (development files)" "$about

This package contains the header, the CMake package and the pkg-config
file."
  if [ "$ol_python" = ON ] && [ "$arch" = amd64 ]; then
    # An extension module tagged cpython-3XY loads only in Python 3.XY.
    local py=python3 tag pkg=python3-brennik-opt-layers
    DESTDIR=$stage/$pkg cmake --install "$build" --prefix /usr --component python >/dev/null
    tag=$(find "$stage/$pkg" -name '*.so' | grep -o 'cpython-3[0-9]*' | head -n 1)
    [ -n "$tag" ] && py="python3 (>= 3.${tag#cpython-3}~), python3 (<< 3.$((${tag#cpython-3} + 1)))"
    one_deb $pkg python python "$py, python3-numpy" "" \
      "Faster R-CNN post-processing layers (Python 3 module)" "$about

This package contains the Python 3 module."
  fi
  rm -rf "$stage"
}

if [ "${1:-}" = --from ]; then
  [ $# -eq 3 ] || { echo "usage: $0 [--from BUILD OUTDIR]" >&2; exit 2; }
  make_debs "$2" "$3"
  exit
fi

cd "$src"
scripts/install_deps.sh
out=build/package
rm -rf "$out/debs"
debs=()
for arch in amd64 arm64; do
  dir=$out/$arch
  args=(-DCMAKE_BUILD_TYPE=Release -DOL_BUILD_TESTS=OFF -DOL_BUILD_TOOLS=OFF)
  if [ $arch = arm64 ]; then
    args+=(-DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake)
  else
    args+=(-DOL_BUILD_PYTHON=ON)
  fi
  echo "=== $arch: build ($dir)"
  mkdir -p "$dir"
  if ! { cmake -S . -B "$dir" -G Ninja "${args[@]}" && cmake --build "$dir" -j2; } >"$dir.log" 2>&1; then
    tail -n 40 "$dir.log"; echo "package.sh: the $arch build failed (log $dir.log)" >&2; exit 1
  fi
  made=$(make_debs "$dir" "$out/debs")
  mapfile -t -O ${#debs[@]} debs <<<"$made"
done

status=0
echo "=== lintian"
for deb in "${debs[@]}"; do
  lintian --fail-on error "$deb" 2> >(grep -v 'running with root privileges' >&2) || status=1
done

echo "=== arm64 library"
. "$out/arm64/package.env"
soname=libbrennik_opt_layers.so.$ol_soversion
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
dpkg-deb -x "$out/debs/libbrennik-opt-layers${ol_soversion}_$ol_version-1_arm64.deb" "$root"
so=$root/usr/$ol_libdir/$soname
readelf -h "$so" | grep -q 'Machine:.*AArch64' || { echo "$so: not an aarch64 ELF"; status=1; }
readelf -d "$so" | grep -q "SONAME.*\[$soname\]" || { echo "$so: SONAME is not $soname"; status=1; }
echo "=== amd64 packages: consumer"
tests/install_check.sh "$out/amd64" "$src" deb || status=1

echo "=== packages"
for deb in "${debs[@]}"; do
  dpkg-deb -f "$deb" Package Version Architecture Depends | paste -sd' ' -
done
exit $status
