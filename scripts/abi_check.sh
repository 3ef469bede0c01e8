#!/usr/bin/env bash
# Compares the public ABI of a built libbrennik_opt_layers.so (compiled with
# -g, as the default native build is) with the 1.x baseline in abi/: the
# libabigail dump of the exported functions and the types they reach
# (abi/libbrennik_opt_layers.abi) and the exported symbols (abi/symbols.txt).
# Fails on any change that breaks a binary linked against the baseline: a
# removed or renamed symbol, a changed parameter or return type, a changed
# size, field offset or field type of frcnn_desc or opt_layers_version.
# Added symbols are listed and pass. Internal types are not part of it.
#
#   scripts/abi_check.sh LIBRARY             check
#   scripts/abi_check.sh --update LIBRARY    rewrite the baseline (docs/abi.md)
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
base=$src/abi/libbrennik_opt_layers.abi
base_syms=$src/abi/symbols.txt
update=0
[ "${1:-}" = --update ] && { update=1; shift; }
[ $# -eq 1 ] || { echo "usage: $0 [--update] LIBRARY" >&2; exit 2; }
lib=$1

dump() {  # library, output file
  abidw --exported-interfaces-only --drop-private-types --headers-dir "$src/include" \
    --no-corpus-path --no-comp-dir-path --no-elf-needed --no-show-locs --type-id-style hash --out-file "$2" "$1"
}
symbols() { nm -D --defined-only "$1" | awk '{print $3}' | LC_ALL=C sort; }

if [ $update = 1 ]; then
  mkdir -p "$src/abi"
  dump "$lib" "$base"
  symbols "$lib" >"$base_syms"
  echo "abi baseline written: $base, $base_syms"
  exit 0
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
dump "$lib" "$tmp/new.abi"
status=0
symbols "$lib" >"$tmp/syms"
if LC_ALL=C comm -23 "$base_syms" "$tmp/syms" | grep .; then
  echo "abi check: the symbols above were removed"; status=1
fi
if LC_ALL=C comm -13 "$base_syms" "$tmp/syms" | grep .; then
  echo "abi check: the symbols above were added (compatible)"
fi
# abidiff's status is a bit set: 4 = the ABI changed, 8 = incompatibly.
# Added functions alone also give 4, so the changes are weighed once more
# without them.
abidiff "$base" "$tmp/new.abi" || {
  rc=$?
  [ $((rc & 3)) -ne 0 ] && { echo "abi check: abidiff failed ($rc)"; exit 1; }
  abidiff --no-added-syms "$base" "$tmp/new.abi" >/dev/null || status=1
}
[ $status = 0 ] && echo "abi check passed" || echo "abi check: the public ABI changed"
exit $status
