#!/usr/bin/env bash
# The main job: builds the firmware images and the host tools, then performs a whole update
# inside OVMF under QEMU. The emulated platform's chip starts with the installed image; the
# update application queries, verifies the signed new release, writes every block with a
# progress bar, reads the flash back, reports completion and prints a summary.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if [[ ${1:-} == --help || ${1:-} == -h ]]; then
  cat <<'TEXT'
usage: scripts/run.sh [options]      a whole update inside OVMF (default: normal mode, region-tracked)
  --mode normal|recovery      boot mode the earlier boot phase hands over
  --layout tracked|untracked  region-tracked update (configuration flag 0x40) or not
  --tampered                  an image with one signed byte changed: refused, nothing erased or programmed
  --interrupted               the chip loses power part way; the next boot resumes and completes the update
  --power-cut N               the flash operation (erase or program) the power fails at (implies --interrupted)
  --staging                   CMOS 0xF8 = 0xFF: verify stages the files on a USB "ZQ_TOOLS" disk and resets;
                              the files are read back from the disk and compared
The last line is "BIOS-IMAGE-INTERFACE-RESULT: PASS" or "FAIL"; the exit status is 0 for PASS.
TEXT
  exit 0
fi
"$root/scripts/setup.sh"
build=$root/build-run
cmake -S "$root" -B "$build" -G Ninja -DBIOS_SANITIZE=OFF -DBIOS_FIRMWARE=ON >/dev/null
echo "run: building the firmware images and the host tools in $build"
if ! cmake --build "$build" --target BiosImageInterfaceDxe BiosImageInterfaceDxeEmu EmuPlatformDxe BiosUpdateApp \
  BuildImage SignImage >"$build/build.log" 2>&1; then
  cat "$build/build.log" >&2
  exit 1
fi
echo "run: booting OVMF under QEMU (TCG; about 20 seconds a boot)"
"$root/efi/run-ovmf.sh" "$build/efi" "$build/ovmf-run" --expect "$@"
