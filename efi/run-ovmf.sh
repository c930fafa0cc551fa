#!/usr/bin/env bash
# Boots OVMF under QEMU (q35, TCG, headless) with a FAT volume holding the update
# application as EFI/BOOT/BOOTX64.EFI, the emulated platform driver and our driver bound to
# it, and the images the application verifies: a new release signed with the build's test
# key (new.bin, new.sig) and the same image with one signed byte changed (bad.bin).
# Prints the console; with --expect, succeeds only on the application's PASS line.
# usage: run-ovmf.sh EFI_DIR WORK_DIR [--expect]   (the host tools are in EFI_DIR/..)
set -euo pipefail
efi=$1 work=$2 expect=${3:-}
build=$(cd "$efi/.." && pwd)
mkdir -p "$work"
fat=$work/volume.img vars=$work/OVMF_VARS.fd log=$work/console.log

"$build/BuildImage" "$work/new.bin" --new >/dev/null
"$build/SignImage" --key "$build/test-keys/SignKey1.pem" --image "$work/new.bin" --signature "$work/new.sig" >/dev/null
cp "$work/new.bin" "$work/bad.bin"
tamper=$((0x240040))  # inside IBB4, which the flash map's signature covers
byte=$(od -An -tu1 -j "$tamper" -N1 "$work/bad.bin" | tr -d ' ')
printf "\\x$(printf %02x $((byte ^ 1)))" | dd of="$work/bad.bin" bs=1 seek="$tamper" conv=notrunc status=none

rm -f "$fat"
truncate -s 64M "$fat"
mformat -i "$fat" -F -v BIOSTEST ::
mmd -i "$fat" ::/EFI ::/EFI/BOOT
mcopy -i "$fat" "$efi/BiosUpdateApp.efi" ::/EFI/BOOT/BOOTX64.EFI
mcopy -i "$fat" "$efi/EmuPlatformDxe.efi" ::/EFI/BOOT/EmuPlatformDxe.efi
mcopy -i "$fat" "$efi/BiosImageInterfaceDxeEmu.efi" ::/EFI/BOOT/BiosImageInterfaceDxe.efi
mcopy -i "$fat" "$work/new.bin" "$work/new.sig" "$work/bad.bin" ::/
cp /usr/share/OVMF/OVMF_VARS_4M.fd "$vars"

status=0
timeout 240 qemu-system-x86_64 -machine q35 -m 256 -nographic -no-reboot -net none \
  -drive if=pflash,format=raw,readonly=on,file=/usr/share/OVMF/OVMF_CODE_4M.fd \
  -drive if=pflash,format=raw,file="$vars" \
  -drive format=raw,file="$fat" -serial mon:stdio </dev/null >"$log" 2>&1 || status=$?

# The console carries terminal control sequences; show the application's lines plainly.
sed -e 's/\x1b\[[0-9;?]*[A-Za-z]//g' -e 's/\r//g' "$log" | grep -E '^(BiosUpdateApp|EmuPlatformDxe|BiosImageInterface|BiosVerifySignature|BIOS-IMAGE)' || true
if [[ -n $expect ]]; then
  if grep -q 'BIOS-IMAGE-INTERFACE-RESULT: PASS' "$log"; then
    exit 0
  fi
  echo "run-ovmf: no PASS line (qemu status $status); console in $log" >&2
  exit 1
fi
