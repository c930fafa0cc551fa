#!/usr/bin/env bash
# Shows that the firmware link refuses what firmware cannot run: a clean object links,
# while one with a static constructor, or one that calls operator new, is refused.
# usage: check-link-guard.sh CXX WORKDIR
set -uo pipefail
cxx=$1 work=$2
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$work"
flags=(-std=c++20 -O2 -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-stack-protector
       -mno-red-zone -fpic -fno-gnu-unique -fvisibility=hidden -DGNU_EFI_USE_MS_ABI -I/usr/include/efi -I/usr/include/efi/x86_64)

cat > "$work/clean.cpp" <<'SRC'
#include <efi.h>
extern "C" EFI_STATUS efi_main(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }
SRC
cat > "$work/static_constructor.cpp" <<'SRC'
#include <efi.h>
struct Counter { int Value; Counter(); };
Counter::Counter() : Value(*(volatile int *)&Value + 1) {}
Counter gCounter;  // needs dynamic initialisation
extern "C" EFI_STATUS efi_main(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return gCounter.Value; }
SRC
cat > "$work/operator_new.cpp" <<'SRC'
#include <efi.h>
struct Box { int Value; };
Box *gBox;
// The pointer escapes, so the allocation cannot be optimised away.
extern "C" EFI_STATUS efi_main(EFI_HANDLE, EFI_SYSTEM_TABLE *) { gBox = new Box{3}; return 0; }
SRC

status=0
for name in clean static_constructor operator_new; do
  "$cxx" "${flags[@]}" -c "$work/$name.cpp" -o "$work/$name.o" || { echo "compile of $name failed"; exit 1; }
  if "$here/link-efi.sh" "$work/$name.efi" driver "$work/$name.o" 2>"$work/$name.log"; then linked=yes; else linked=no; fi
  expected=no; [[ $name == clean ]] && expected=yes
  if [[ $linked == "$expected" ]]; then
    echo "ok: $name linked=$linked"
  else
    echo "FAIL: $name linked=$linked (expected $expected)"; cat "$work/$name.log"; status=1
  fi
done
exit $status
