#!/usr/bin/env bash
# The bios-update command on the default images, as a user runs it: a whole update reports
# every service status 0 and the read-back equal; a tampered image is refused with
# EFI_SECURITY_VIOLATION before any sector is erased; a power cut leaves the update not
# completed; a missing file gives one message and status 2.
# usage: check-bios-update.sh BUILD_IMAGE SIGN_IMAGE BIOS_UPDATE KEY.pem WORK_DIR
set -euo pipefail
build_image=$1 sign_image=$2 bios_update=$3 key=$4 work=$5
rm -rf "$work" && mkdir -p "$work" && cd "$work"
failures=0
expect() {  # expect WHAT FILE FRAGMENT...
  local what=$1 file=$2
  shift 2
  for fragment in "$@"; do
    if ! grep -qF -- "$fragment" "$file"; then
      echo "FAIL $what: no $fragment in $(cat "$file")"
      failures=$((failures + 1))
    fi
  done
}
status() {  # status WHAT EXPECTED ACTUAL
  if [[ $2 != "$3" ]]; then
    echo "FAIL $1: exit status $3, expected $2"
    failures=$((failures + 1))
  fi
}

"$build_image" inst.bin >/dev/null
"$build_image" new.bin --new >/dev/null
"$sign_image" --key "$key" --image new.bin --signature new.sig >/dev/null

cp inst.bin flash.bin
rc=0; "$bios_update" --flash flash.bin --image new.bin --signature new.sig --json >whole.json 2>/dev/null || rc=$?
status "whole update" 0 $rc
expect "whole update" whole.json '"completed":true' '"read_back_equal":true' \
  '"start":{"service":"Start","called":true,"status":0,' \
  '"query":{"service":"BiosQueryImage","called":true,"status":0,' \
  '"verify":{"service":"BiosVerifySignature","called":true,"status":0,' \
  '"by_status":[{"status":0,"name":"EFI_SUCCESS","count":4096}]' \
  '"read":{"service":"BiosReadImage","called":true,"status":0,' \
  '"completion":{"service":"SetFlashCompletionStatus","called":true,"status":0,'
cmp -s flash.bin new.bin || { echo "FAIL whole update: the flash file is not the new image"; failures=$((failures + 1)); }

cp new.bin tampered.bin
printf '\xA5' | dd of=tampered.bin bs=1 seek=$((0x240040)) conv=notrunc status=none
cp inst.bin flash.bin
rc=0; "$bios_update" --flash flash.bin --image tampered.bin --signature new.sig --json >tampered.json 2>/dev/null || rc=$?
status "tampered image" 1 $rc
expect "tampered image" tampered.json '"name":"EFI_SECURITY_VIOLATION"' '"sector_erases":0,' '"completed":false'
cmp -s flash.bin inst.bin || { echo "FAIL tampered image: the flash file changed"; failures=$((failures + 1)); }

cp inst.bin flash.bin
rc=0; "$bios_update" --flash flash.bin --image new.bin --signature new.sig --power-cut 40 --out cut.bin --json \
  --svg cut.svg >cut.json 2>/dev/null || rc=$?
status "power cut" 1 $rc
expect "power cut" cut.json '"completed":false' '"power_cut":{"service":"BiosWriteImage"'
expect "power cut timeline" cut.svg '<svg' '>power cut</text>' '</svg>'
cmp -s cut.bin inst.bin && { echo "FAIL power cut: the chip was not touched"; failures=$((failures + 1)); }

rc=0; "$bios_update" --flash missing.bin --image new.bin --signature new.sig >missing.out 2>missing.err || rc=$?
status "missing file" 2 $rc
expect "missing file" missing.err 'bios-update: cannot read the flash file missing.bin'
[[ $(wc -l <missing.err) == 1 && ! -s missing.out ]] || { echo "FAIL missing file: not one message"; failures=$((failures + 1)); }

echo "bios-update checks: $failures failing"
((failures == 0))
