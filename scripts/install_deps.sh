#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, when
# they are missing. Runs apt-get update once before installing anything.
set -euo pipefail
pkgs=(cmake ninja-build g++ make googletest libgtest-dev libbenchmark-dev
      g++-aarch64-linux-gnu qemu-user clang libclang-rt-14-dev
      libpng-dev nlohmann-json3-dev libstb-dev valgrind pkg-config
      abigail-tools dpkg-dev lintian
      pybind11-dev python3-pybind11 python3-numpy python3-pytest python3-torchvision)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
fi
