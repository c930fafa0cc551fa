#!/usr/bin/env bash
# Every test: the host suite under AddressSanitizer and UndefinedBehaviorSanitizer, the
# firmware images and their link guard, and the end-to-end run inside OVMF under QEMU.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
build=$root/build
cmake -S "$root" -B "$build" -G Ninja -DBIOS_SANITIZE=ON -DBIOS_FIRMWARE=ON >/dev/null
cmake --build "$build"
# The fuzz harnesses, built with clang and run for a fixed number of iterations each.
fuzz=$root/build-fuzz
CC=clang CXX=clang++ cmake -S "$root" -B "$fuzz" -G Ninja -DBIOS_FUZZ=ON -DBIOS_FIRMWARE=OFF -DBIOS_SANITIZE=OFF >/dev/null
cmake --build "$fuzz" --target fuzz_all
(cd "$fuzz" && ctest --output-on-failure -R '^fuzz_')

cd "$build"
ctest --output-on-failure -j2
