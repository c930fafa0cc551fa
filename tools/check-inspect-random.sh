#!/bin/sh
# bios-inspect on random bytes: a 16 MiB file must be reported as not an image (status 1,
# with what was not found), a 100-byte file refused by size (status 2), and neither may
# trip a sanitizer (their reports exit with 86 and are looked for on stderr as well).
# usage: check-inspect-random.sh BIOS_INSPECT WORK_DIR
set -u
Inspect=$1
Work=$2
mkdir -p "$Work"
export ASAN_OPTIONS="exitcode=86:detect_leaks=1" UBSAN_OPTIONS="exitcode=86:halt_on_error=1:print_stacktrace=1"
head -c 16777216 /dev/urandom > "$Work/random.bin"
head -c 100 /dev/urandom > "$Work/short.bin"
Failed=0

expect() {  # NAME STATUS PATTERN -- command...
  Name=$1 Wanted=$2 Pattern=$3
  shift 4
  "$@" > "$Work/$Name.out" 2> "$Work/$Name.err"
  Status=$?
  if [ "$Status" -ne "$Wanted" ]; then
    echo "$Name: exit status $Status, expected $Wanted"; Failed=1
  fi
  if grep -q -e "AddressSanitizer" -e "runtime error" -e "LeakSanitizer" "$Work/$Name.err"; then
    echo "$Name: sanitizer report"; cat "$Work/$Name.err"; Failed=1
  fi
  if ! grep -q -e "$Pattern" "$Work/$Name.out" "$Work/$Name.err"; then
    echo "$Name: no line matching '$Pattern'"; cat "$Work/$Name.out" "$Work/$Name.err"; Failed=1
  fi
}

expect random 1 "no flash map found" -- "$Inspect" "$Work/random.bin"
expect random-json 1 '^{"size":16777216,"recognized":false' -- "$Inspect" "$Work/random.bin" --json
expect short 2 "is not an image: 100 bytes" -- "$Inspect" "$Work/short.bin"
expect missing 2 "cannot read" -- "$Inspect" "$Work/no-such-file.bin"
[ "$Failed" -eq 0 ] && echo "bios-inspect on random bytes: reported, no sanitizer report"
exit "$Failed"
