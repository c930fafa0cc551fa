#!/usr/bin/env bash
# Installs what the build, the tests and the OVMF run need (Debian 12), only when missing.
set -euo pipefail
packages=(cmake ninja-build g++ libgtest-dev libbenchmark-dev libssl-dev gnu-efi qemu-system-x86 ovmf mtools
          file clang libclang-rt-14-dev openssl)
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
fi
