#!/usr/bin/env bash
# Boots OVMF under QEMU (q35, TCG, headless) with a FAT volume holding the update
# application as EFI/BOOT/BOOTX64.EFI, the emulated platform driver and our driver bound to
# it, the installed image the emulated chip starts with (installed.bin), the new release
# signed with the build's test key (new.bin, new.sig), the same image with one signed byte
# changed (bad.bin), and the scenario file both read (scenario.txt).
# Prints the application's console as it runs; with --expect, succeeds only when the
# scenario passed.
usage() {
  cat <<'TEXT'
usage: run-ovmf.sh EFI_DIR WORK_DIR [--expect] [options]   (the host tools are in EFI_DIR/..)
  --mode normal|recovery      boot mode the earlier phase hands over (default normal)
  --layout tracked|untracked  region-tracked update or not (default tracked)
  --tampered                  flash an image with one signed byte changed: refused, nothing written
  --interrupted               cut the chip's power part way; the next boot resumes and completes
  --power-cut N               the flash operation the power fails at (default 2; implies --interrupted)
  --staging                   CMOS 0xF8 = 0xFF: the files are staged on a USB "ZQ_TOOLS" disk, then reset
TEXT
}
set -euo pipefail
if [[ ${1:-} == --help || $# -lt 2 ]]; then
  usage
  exit $([[ ${1:-} == --help ]] && echo 0 || echo 2)
fi
efi=$1 work=$2
shift 2
expect= mode=normal layout=tracked tampered= interrupted= staging= powercut=2
while [[ $# -gt 0 ]]; do
  case $1 in
  --expect) expect=1 ;;
  --mode) mode=${2:?}; shift ;;
  --layout) layout=${2:?}; shift ;;
  --tampered) tampered=1 ;;
  --interrupted) interrupted=1 ;;
  --power-cut) interrupted=1 powercut=${2:?}; shift ;;
  --staging) staging=1 ;;
  --help) usage; exit 0 ;;
  *) echo "run-ovmf: unknown option $1" >&2; usage >&2; exit 2 ;;
  esac
  shift
done
[[ $mode == normal || $mode == recovery ]] || { echo "run-ovmf: --mode normal|recovery" >&2; exit 2; }
[[ $layout == tracked || $layout == untracked ]] || { echo "run-ovmf: --layout tracked|untracked" >&2; exit 2; }

build=$(cd "$efi/.." && pwd)
mkdir -p "$work"
fat=$work/volume.img usb=$work/tools.img vars=$work/OVMF_VARS.fd

"$build/BuildImage" "$work/installed.bin" >/dev/null
"$build/BuildImage" "$work/new.bin" --new >/dev/null
"$build/SignImage" --key "$build/test-keys/SignKey1.pem" --image "$work/new.bin" --signature "$work/new.sig" >/dev/null
cp "$work/new.bin" "$work/bad.bin"
tamper=$((0x240040))  # inside IBB4, which the flash map's signature covers
byte=$(od -An -tu1 -j "$tamper" -N1 "$work/bad.bin" | tr -d ' ')
printf "\\x$(printf %02x $((byte ^ 1)))" | dd of="$work/bad.bin" bs=1 seek="$tamper" conv=notrunc status=none

{
  echo "# written by run-ovmf.sh"
  echo "mode $mode"
  echo "layout $layout"
  echo "image $([[ -n $tampered ]] && echo tampered || echo new)"
  [[ -z $interrupted ]] || echo "power-cut $powercut"
  [[ -z $staging ]] || printf 'staging 1\next-cmos f8 ff\n'
} >"$work/scenario.txt"

rm -f "$fat" "$usb"
truncate -s 96M "$fat"
mformat -i "$fat" -F -v BIOSTEST ::
mmd -i "$fat" ::/EFI ::/EFI/BOOT
mcopy -i "$fat" "$efi/BiosUpdateApp.efi" ::/EFI/BOOT/BOOTX64.EFI
mcopy -i "$fat" "$efi/EmuPlatformDxe.efi" ::/EFI/BOOT/EmuPlatformDxe.efi
mcopy -i "$fat" "$efi/BiosImageInterfaceDxeEmu.efi" ::/EFI/BOOT/BiosImageInterfaceDxe.efi
mcopy -i "$fat" "$work/installed.bin" "$work/new.bin" "$work/new.sig" "$work/bad.bin" "$work/scenario.txt" ::/
cp /usr/share/OVMF/OVMF_VARS_4M.fd "$vars"

disks=(-drive if=none,id=boot,format=raw,file="$fat" -device ide-hd,drive=boot,bus=ide.0,bootindex=0)
if [[ -n $staging ]]; then
  # The removable tools disk the driver stages the files on, beside the update tool.
  truncate -s 64M "$usb"
  mformat -i "$usb" -F -v ZQ_TOOLS ::
  mmd -i "$usb" ::/ZQ ::/ZQ/BIOSUpdate
  printf 'update tool placeholder\n' >"$work/ZqBiosMgmt.efi"
  mcopy -i "$usb" "$work/ZqBiosMgmt.efi" ::/ZQ/BIOSUpdate/ZqBiosMgmt.efi
  disks+=(-device qemu-xhci,id=xhci -drive if=none,id=tools,format=raw,file="$usb"
          -device usb-storage,bus=xhci.0,drive=tools,removable=on)
fi

# The progress bar redraws its line with carriage returns: a terminal shows it moving, a
# log keeps each line's last state.
if [[ -t 1 ]]; then
  redraw=()
else
  redraw=(-e 's/\r$//' -e 's/.*\r//')
fi

# One boot; the application's console is shown as it comes (escape sequences removed).
boot() {
  local log=$1 status=0
  timeout 240 qemu-system-x86_64 -machine q35 -m 512 -nographic -no-reboot -net none \
    -drive if=pflash,format=raw,readonly=on,file=/usr/share/OVMF/OVMF_CODE_4M.fd \
    -drive if=pflash,format=raw,file="$vars" \
    "${disks[@]}" -serial mon:stdio </dev/null 2>&1 | tee "$log" |
    sed -u -e 's/\x1b\[[0-9;?]*[A-Za-z]//g' "${redraw[@]}" -e '/BiosUpdateApp: starting/,$!d' || status=$?
  return $status
}

fail() {
  echo "run-ovmf: $1; console in $2" >&2
  [[ -z $expect ]] || exit 1
  exit 0
}

log=$work/console.log
boot "$log" || true
if [[ -n $interrupted ]]; then
  grep -q 'state saved for the next boot: 0' "$log" || fail "the first boot did not save an interrupted update" "$log"
  echo "---- next boot: the update resumes ----"
  log=$work/console-resumed.log
  boot "$log" || true
fi

if [[ -n $staging ]]; then
  grep -q 'reset through port 0xCF9' "$log" || fail "the driver did not reset after staging" "$log"
  mapfile -t staged < <(mdir -i "$usb" -b ::/ZQ/BIOS/New 2>/dev/null | grep -i '\.bin$' || true)
  [[ ${#staged[@]} -eq 1 ]] || fail "expected one staged image in ZQ\\BIOS\\New, found ${#staged[@]}" "$log"
  name=${staged[0]##*/} name=${name%.*}
  mcopy -n -i "$usb" "::/ZQ/BIOS/New/$name.bin" "$work/staged.bin"
  mcopy -n -i "$usb" "::/ZQ/BIOS/New/$name.sig" "$work/staged.sig"
  if cmp -s "$work/staged.bin" "$work/new.bin" && cmp -s "$work/staged.sig" "$work/new.sig"; then
    echo "staged: ZQ\\BIOS\\New\\$name.bin and $name.sig read back equal to new.bin and new.sig"
    echo "BIOS-IMAGE-INTERFACE-RESULT: PASS"
    exit 0
  fi
  fail "the staged files differ from new.bin / new.sig" "$log"
fi

grep -q 'BIOS-IMAGE-INTERFACE-RESULT: PASS' "$log" || fail "no PASS line" "$log"
