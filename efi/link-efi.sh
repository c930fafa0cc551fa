#!/usr/bin/env bash
# Links freestanding objects into a PE32+ EFI image with gnu-efi's crt0, linker script and
# self-relocator. Fails when the image would need something a firmware image cannot have:
# an undefined symbol (operator new, std::__throw_*, a C library call) or a static
# constructor (.init_array / .ctors).
# usage: link-efi.sh OUTPUT.efi driver|app OBJECT...
set -euo pipefail
out=$1 kind=$2
shift 2
so=${out%.efi}.so
mkdir -p "$(dirname "$out")"

ld -shared -Bsymbolic -nostdlib -znocombreloc --no-undefined -T /usr/lib/elf_x86_64_efi.lds \
   /usr/lib/crt0-efi-x86_64.o "$@" -o "$so" -L/usr/lib -lgnuefi

if readelf -S -W "$so" | grep -E '\.(init_array|ctors|preinit_array)\b' >/dev/null; then
  echo "link-efi: $so needs static constructors; firmware images cannot run them" >&2
  nm -C "$so" | grep -E '_GLOBAL__sub_I|_GLOBAL__I' >&2 || true
  rm -f "$so"
  exit 1
fi

# gnu-efi's self-relocator applies only R_X86_64_RELATIVE; any other dynamic relocation
# would leave a pointer unset at run time.
others=$(readelf -r -W "$so" | awk '/^[0-9a-f]+ +[0-9a-f]+ +R_X86_64_/ && $3 != "R_X86_64_RELATIVE" {print $3, $5}')
if [[ -n $others ]]; then
  echo "link-efi: $so has relocations the self-relocator cannot apply:" >&2
  echo "$others" | sort | uniq -c >&2
  rm -f "$so"
  exit 1
fi

case $kind in
  driver) target=efi-bsdrv-x86_64 subsystem=11 ;;
  app) target=efi-app-x86_64 subsystem=10 ;;
  *) echo "link-efi: unknown image kind $kind" >&2; exit 2 ;;
esac
objcopy -j .text -j .sdata -j .data -j .dynamic -j .dynsym -j .rel -j .rela -j '.rel.*' -j '.rela.*' \
        -j .reloc --target "$target" --subsystem=$subsystem "$so" "$out"
