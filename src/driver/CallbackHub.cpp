#include "CallbackHub.h"

#include "../base/BaseLib.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "LibraryList.h"
#include "ProtocolServices.h"

LIST_ENTRY *mCallbackHub = nullptr;

namespace {
// The services of the phase the hub was found in: nodes and swept entries use its pool.
ProtocolServices mHubServices = {FALSE};
BOOLEAN mHubCreatedHere = FALSE;

void ListInit(LIST_ENTRY *Head) {
  Head->Flink = Head;
  Head->Blink = Head;
}

void ListAppend(LIST_ENTRY *Head, LIST_ENTRY *Entry) {
  LIST_ENTRY *Last = Head->Blink;
  Entry->Flink = Head;
  Entry->Blink = Last;
  Last->Flink = Entry;
  Head->Blink = Entry;
}

void ListUnlink(LIST_ENTRY *Entry) {
  Entry->Blink->Flink = Entry->Flink;
  Entry->Flink->Blink = Entry->Blink;
}

HookNode *NodeFromLink(LIST_ENTRY *Link) {
  return reinterpret_cast<HookNode *>(reinterpret_cast<UINT8 *>(Link) - offsetof(HookNode, Link));
}

HookEntry *EntryFromLink(LIST_ENTRY *Link) {
  return reinterpret_cast<HookEntry *>(reinterpret_cast<UINT8 *>(Link) - offsetof(HookEntry, Link));
}

UINT32 *RecordStatus(VOID *Record) {
  return &static_cast<HookRecordHeader *>(Record)->Status;
}

EFI_STATUS CreateNode(const EFI_GUID *HookGuid) {
  auto *Node = static_cast<HookNode *>(mHubServices.AllocateZeroed(EfiBootServicesData, sizeof(HookNode)));
  if (Node == nullptr) {
    return EFI_OUT_OF_RESOURCES;
  }
  Node->Signature = kHookNodeSignature;
  for (LIST_ENTRY &List : Node->Lists) {
    ListInit(&List);
  }
  CopyMem(&Node->HookGuid, HookGuid, sizeof(EFI_GUID));
  ListAppend(mCallbackHub, &Node->Link);
  Node->SignalCount = 1;
  return EFI_SUCCESS;
}

// Calls every live entry, list 0 to 4, until a callback sets the stop bit in the record.
void Dispatch(HookNode *Node, VOID *Record) {
  UINT32 *Status = RecordStatus(Record);
  for (LIST_ENTRY &Head : Node->Lists) {
    for (LIST_ENTRY *Link = Head.Flink; Link != &Head; Link = Link->Flink) {
      HookEntry *Entry = EntryFromLink(Link);
      if (Entry->Removed != 0 || Entry->Callback == nullptr) {
        continue;
      }
      Entry->Callback(0, Entry);
      if ((*Status & kHookStopDispatch) != 0) {
        *Status &= ~kHookStopDispatch;
        return;
      }
    }
  }
}

// Frees the entries marked while signals were walking the lists.
void Sweep(HookNode *Node) {
  for (LIST_ENTRY &Head : Node->Lists) {
    LIST_ENTRY *Link = Head.Flink;
    while (Link != &Head) {
      LIST_ENTRY *Next = Link->Flink;
      HookEntry *Entry = EntryFromLink(Link);
      if (Entry->Removed != 0) {
        ListUnlink(Link);
        mHubServices.Free(Entry);
      }
      Link = Next;
    }
  }
}
}  // namespace

HookNode *HookFind(const EFI_GUID *HookGuid) {
  if (mCallbackHub == nullptr || HookGuid == nullptr) {
    return nullptr;
  }
  for (LIST_ENTRY *Link = mCallbackHub->Flink; Link != mCallbackHub; Link = Link->Flink) {
    HookNode *Node = NodeFromLink(Link);
    if (CompareGuid(&Node->HookGuid, HookGuid)) {
      return Node;
    }
  }
  return nullptr;
}

EFI_STATUS HookSignal(const EFI_GUID *HookGuid, VOID *Record) {
  if (HookGuid == nullptr || Record == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  if (mCallbackHub == nullptr) {
    return EFI_NOT_READY;
  }
  HookNode *Node = HookFind(HookGuid);
  if (Node == nullptr) {
    return CreateNode(HookGuid);
  }

  VOID *OuterRecord = Node->CurrentRecord;
  Node->CurrentRecord = Record;
  Node->Depth++;
  Dispatch(Node, Record);
  Node->SignalCount++;
  Node->CurrentRecord = OuterRecord;
  Node->Depth--;
  if (Node->Depth > 0) {
    return EFI_SUCCESS;  // nested: the outermost signal sweeps
  }
  Sweep(Node);
  return EFI_SUCCESS;
}

// Finds the registry the platform's drivers share, or creates and publishes it: the first
// driver to start creates it, all later ones share it.
EFI_STATUS EFIAPI CallbackHubLibConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  mHubServices = CurrentProtocolServices();
  VOID *Existing = nullptr;
  if (mHubServices.Locate(gCallbackHubProtocolGuid, &Existing) == EFI_SUCCESS && Existing != nullptr) {
    mCallbackHub = static_cast<LIST_ENTRY *>(Existing);
    return EFI_SUCCESS;
  }
  auto *Head = static_cast<LIST_ENTRY *>(mHubServices.Allocate(EfiBootServicesData, sizeof(LIST_ENTRY)));
  if (Head == nullptr) {
    return EFI_OUT_OF_RESOURCES;
  }
  ListInit(Head);
  // Even when publishing fails the registry serves this driver's own hook points.
  mCallbackHub = Head;
  mHubCreatedHere = TRUE;
  return mHubServices.InstallOnNewHandle(gCallbackHubProtocolGuid, Head);
}

#if defined(BIOS_HOST_BUILD)
// Nodes live for the firmware's life; between tests the ones this driver created go back
// to the pool (entries still listed belong to the test that registered them).
void ResetCallbackHubForTest() {
  if (mCallbackHub != nullptr && gBS != nullptr) {
    LIST_ENTRY *Link = mCallbackHub->Flink;
    while (Link != mCallbackHub) {
      LIST_ENTRY *Next = Link->Flink;
      ListUnlink(Link);
      mHubServices.Free(NodeFromLink(Link));
      Link = Next;
    }
    if (mHubCreatedHere) {
      mHubServices.Free(mCallbackHub);
    }
  }
  mCallbackHub = nullptr;
  mHubServices = {FALSE};
  mHubCreatedHere = FALSE;
}
#endif
