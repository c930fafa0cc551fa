#!/usr/bin/env bash
# Boots OVMF under QEMU (q35, TCG, headless) with a FAT volume holding the update
# application as EFI/BOOT/BOOTX64.EFI, the emulated platform driver and our driver bound to
# it. Prints the console; with --expect, succeeds only on the application's PASS line.
# usage: run-ovmf.sh EFI_DIR WORK_DIR [--expect]
set -euo pipefail
efi=$1 work=$2 expect=${3:-}
mkdir -p "$work"
fat=$work/volume.img vars=$work/OVMF_VARS.fd log=$work/console.log

rm -f "$fat"
truncate -s 64M "$fat"
mformat -i "$fat" -F -v BIOSTEST ::
mmd -i "$fat" ::/EFI ::/EFI/BOOT
mcopy -i "$fat" "$efi/BiosUpdateApp.efi" ::/EFI/BOOT/BOOTX64.EFI
mcopy -i "$fat" "$efi/EmuPlatformDxe.efi" ::/EFI/BOOT/EmuPlatformDxe.efi
mcopy -i "$fat" "$efi/BiosImageInterfaceDxeEmu.efi" ::/EFI/BOOT/BiosImageInterfaceDxe.efi
cp /usr/share/OVMF/OVMF_VARS_4M.fd "$vars"

status=0
timeout 240 qemu-system-x86_64 -machine q35 -m 256 -nographic -no-reboot -net none \
  -drive if=pflash,format=raw,readonly=on,file=/usr/share/OVMF/OVMF_CODE_4M.fd \
  -drive if=pflash,format=raw,file="$vars" \
  -drive format=raw,file="$fat" -serial mon:stdio </dev/null >"$log" 2>&1 || status=$?

# The console carries terminal control sequences; show the application's lines plainly.
sed -e 's/\x1b\[[0-9;?]*[A-Za-z]//g' -e 's/\r//g' "$log" | grep -E '^(BiosUpdateApp|EmuPlatformDxe|BiosImageInterface|BIOS-IMAGE)' || true
if [[ -n $expect ]]; then
  if grep -q 'BIOS-IMAGE-INTERFACE-RESULT: PASS' "$log"; then
    exit 0
  fi
  echo "run-ovmf: no PASS line (qemu status $status); console in $log" >&2
  exit 1
fi
