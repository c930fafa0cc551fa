#!/usr/bin/env bash
# The main job: builds the firmware images and runs them in OVMF under QEMU. The update
# application loads the emulated platform and the driver, calls the driver's services
# through both protocol GUIDs, verifies a signed and a tampered image, and prints what the
# driver answered.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
build=$root/build-run
cmake -S "$root" -B "$build" -G Ninja -DBIOS_SANITIZE=OFF -DBIOS_FIRMWARE=ON >/dev/null
cmake --build "$build" --target BiosImageInterfaceDxe BiosImageInterfaceDxeEmu EmuPlatformDxe BiosUpdateApp \
  BuildImage SignImage
"$root/efi/run-ovmf.sh" "$build/efi" "$build/ovmf-run" --expect
