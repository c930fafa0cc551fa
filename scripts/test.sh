#!/usr/bin/env bash
# Every test: the host suite under AddressSanitizer and UndefinedBehaviorSanitizer, the
# firmware images and their link guard, and the end-to-end run inside OVMF under QEMU.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
build=$root/build
cmake -S "$root" -B "$build" -G Ninja -DBIOS_SANITIZE=ON -DBIOS_FIRMWARE=ON >/dev/null
cmake --build "$build"
cd "$build"
ctest --output-on-failure
