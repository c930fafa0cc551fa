// The callback hub: a registry shared by the platform's drivers through
// gCallbackHubProtocolGuid. For each hook point (a GUID) it holds a node with five ordered
// lists of callbacks that other drivers register; this driver signals hook points and
// creates their nodes on first use. Node and entry layouts are a binary contract with
// those drivers.
#pragma once
#include "../base/Uefi.h"

constexpr UINT32 kHookNodeSignature = 0x4843515A;  // "ZQCH"
constexpr UINTN kHookListCount = 5;
// Status bit a callback sets to stop the dispatch; the dispatcher clears it again.
constexpr UINT32 kHookStopDispatch = 0x80;

struct HookEntry;
// A callback: its first argument is always 0, its second the entry it was registered with.
typedef VOID(EFIAPI *HOOK_CALLBACK)(UINTN Reserved, HookEntry *Entry);

// Every field falls on its natural alignment, so the layout needs no packing; the asserts
// pin each offset the other drivers rely on.
struct HookNode {
  UINT32 Signature;                  // 0x00 "ZQCH"
  UINT32 Reserved04;                 // 0x04
  LIST_ENTRY Link;                   // 0x08 position in the hub registry
  LIST_ENTRY Lists[kHookListCount];  // 0x18 callback lists, dispatched 0 to 4
  UINT8 Reserved68[0x50];            // 0x68
  UINT64 SignalCount;                // 0xB8 1 at creation, +1 per completed signal
  UINT32 ReservedC0;                 // 0xC0
  EFI_GUID HookGuid;                 // 0xC4 no alignment gap before it
  UINT32 ReservedD4;                 // 0xD4
  VOID *CurrentRecord;               // 0xD8 record of the signal in progress, NULL when idle
  UINT64 Depth;                      // 0xE0 nesting depth of signals in progress
};
static_assert(offsetof(HookNode, Signature) == 0x00);
static_assert(offsetof(HookNode, Link) == 0x08);
static_assert(offsetof(HookNode, Lists) == 0x18);
static_assert(offsetof(HookNode, SignalCount) == 0xB8);
static_assert(offsetof(HookNode, HookGuid) == 0xC4);
static_assert(offsetof(HookNode, CurrentRecord) == 0xD8);
static_assert(offsetof(HookNode, Depth) == 0xE0);
static_assert(sizeof(HookNode) == 232);

// A callback entry, allocated from pool by the registering driver. The dispatcher uses
// three fields; the other bytes belong to the registering driver.
struct HookEntry {
  UINT8 OwnerData00[0x08];  // 0x00
  LIST_ENTRY Link;          // 0x08 position in one of the node's lists
  UINT8 OwnerData18[0x28];  // 0x18
  HOOK_CALLBACK Callback;   // 0x40
  UINT8 OwnerData48[0x18];  // 0x48
  UINT8 Removed;            // 0x60 non-zero: skipped now, freed when the outermost signal ends
};
static_assert(offsetof(HookEntry, Link) == 0x08);
static_assert(offsetof(HookEntry, Callback) == 0x40);
static_assert(offsetof(HookEntry, Removed) == 0x60);

// Every hook record starts with these two fields; the payload follows at offset 8.
struct HookRecordHeader {
  UINT32 Size;
  UINT32 Status;  // 0 when signalled; the callbacks' answer afterwards
};
static_assert(offsetof(HookRecordHeader, Status) == 4);

// The registry head (the protocol's interface), NULL until the hub constructor has run.
extern LIST_ENTRY *mCallbackHub;

// The node of HookGuid in the registry, or NULL.
HookNode *HookFind(const EFI_GUID *HookGuid);
// Announces Record under HookGuid. EFI_INVALID_PARAMETER for a NULL argument,
// EFI_OUT_OF_RESOURCES when a first signal cannot create the node, EFI_NOT_READY when
// there is no registry; otherwise EFI_SUCCESS. A first signal creates the node and
// calls nothing.
EFI_STATUS HookSignal(const EFI_GUID *HookGuid, VOID *Record);

HOST_ONLY(void ResetCallbackHubForTest();)
