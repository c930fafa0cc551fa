// System management network registers, reached through the index/data pair in the host
// bridge's PCI configuration space, and the PSP's recovery flag kept in one of them.
#pragma once
#include "../base/Uefi.h"

constexpr UINT32 kSmnIndexRegister = 0xB8;  // bus 0, device 0, function 0
constexpr UINT32 kSmnDataRegister = 0xBC;
constexpr UINT32 kRecoveryFlagRegister = 0x03810570;
constexpr UINT32 kRecoveryFlagRegisterAlternate = 0x03810970;  // SoC information selector 2
constexpr UINT32 kRecoveryFlagBit = 1u << 30;

VOID SmnRead(UINT32 SmnAddress, UINT32 *Value);
// TRUE when the PSP booted from the recovery (B) copy; always FALSE unless enabled.
BOOLEAN PspRecoveryFlag();
