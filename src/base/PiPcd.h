// The PI PCD protocol (gEfiPcdProtocolGuid), PI specification volume 3.
#pragma once
#include "Uefi.h"

struct EFI_PCD_PROTOCOL;
typedef VOID(EFIAPI *EFI_PCD_PROTOCOL_SET_SKU)(UINTN SkuId);
typedef UINT8(EFIAPI *EFI_PCD_PROTOCOL_GET_8)(const EFI_GUID *Guid, UINTN TokenNumber);
typedef UINT16(EFIAPI *EFI_PCD_PROTOCOL_GET_16)(const EFI_GUID *Guid, UINTN TokenNumber);
typedef UINT32(EFIAPI *EFI_PCD_PROTOCOL_GET_32)(const EFI_GUID *Guid, UINTN TokenNumber);
typedef UINT64(EFIAPI *EFI_PCD_PROTOCOL_GET_64)(const EFI_GUID *Guid, UINTN TokenNumber);
typedef VOID *(EFIAPI *EFI_PCD_PROTOCOL_GET_POINTER)(const EFI_GUID *Guid, UINTN TokenNumber);
typedef BOOLEAN(EFIAPI *EFI_PCD_PROTOCOL_GET_BOOLEAN)(const EFI_GUID *Guid, UINTN TokenNumber);
typedef UINTN(EFIAPI *EFI_PCD_PROTOCOL_GET_SIZE)(const EFI_GUID *Guid, UINTN TokenNumber);
typedef EFI_STATUS(EFIAPI *EFI_PCD_PROTOCOL_SET_8)(const EFI_GUID *Guid, UINTN TokenNumber, UINT8 Value);
typedef EFI_STATUS(EFIAPI *EFI_PCD_PROTOCOL_SET_16)(const EFI_GUID *Guid, UINTN TokenNumber, UINT16 Value);
typedef EFI_STATUS(EFIAPI *EFI_PCD_PROTOCOL_SET_32)(const EFI_GUID *Guid, UINTN TokenNumber, UINT32 Value);
typedef EFI_STATUS(EFIAPI *EFI_PCD_PROTOCOL_SET_64)(const EFI_GUID *Guid, UINTN TokenNumber, UINT64 Value);
typedef EFI_STATUS(EFIAPI *EFI_PCD_PROTOCOL_SET_POINTER)(const EFI_GUID *Guid, UINTN TokenNumber, UINTN *SizeOfValue,
                                                          VOID *Buffer);
typedef EFI_STATUS(EFIAPI *EFI_PCD_PROTOCOL_SET_BOOLEAN)(const EFI_GUID *Guid, UINTN TokenNumber, BOOLEAN Value);
typedef VOID(EFIAPI *EFI_PCD_PROTOCOL_CALLBACK)(const EFI_GUID *Guid, UINTN CallBackToken, VOID *TokenData,
                                                UINTN TokenDataSize);
typedef EFI_STATUS(EFIAPI *EFI_PCD_PROTOCOL_CALLBACK_ON_SET)(const EFI_GUID *Guid, UINTN CallBackToken,
                                                              EFI_PCD_PROTOCOL_CALLBACK CallBackFunction);
typedef EFI_STATUS(EFIAPI *EFI_PCD_PROTOCOL_CANCEL_CALLBACK)(const EFI_GUID *Guid, UINTN CallBackToken,
                                                              EFI_PCD_PROTOCOL_CALLBACK CallBackFunction);
typedef EFI_STATUS(EFIAPI *EFI_PCD_PROTOCOL_GET_NEXT_TOKEN)(const EFI_GUID *Guid, UINTN *TokenNumber);
typedef EFI_STATUS(EFIAPI *EFI_PCD_PROTOCOL_GET_NEXT_TOKEN_SPACE)(const EFI_GUID **Guid);

struct EFI_PCD_PROTOCOL {
  EFI_PCD_PROTOCOL_SET_SKU SetSku;
  EFI_PCD_PROTOCOL_GET_8 Get8;
  EFI_PCD_PROTOCOL_GET_16 Get16;
  EFI_PCD_PROTOCOL_GET_32 Get32;
  EFI_PCD_PROTOCOL_GET_64 Get64;
  EFI_PCD_PROTOCOL_GET_POINTER GetPtr;
  EFI_PCD_PROTOCOL_GET_BOOLEAN GetBool;
  EFI_PCD_PROTOCOL_GET_SIZE GetSize;
  EFI_PCD_PROTOCOL_SET_8 Set8;
  EFI_PCD_PROTOCOL_SET_16 Set16;
  EFI_PCD_PROTOCOL_SET_32 Set32;
  EFI_PCD_PROTOCOL_SET_64 Set64;
  EFI_PCD_PROTOCOL_SET_POINTER SetPtr;
  EFI_PCD_PROTOCOL_SET_BOOLEAN SetBool;
  EFI_PCD_PROTOCOL_CALLBACK_ON_SET CallbackOnSet;
  EFI_PCD_PROTOCOL_CANCEL_CALLBACK CancelCallback;
  EFI_PCD_PROTOCOL_GET_NEXT_TOKEN GetNextToken;
  EFI_PCD_PROTOCOL_GET_NEXT_TOKEN_SPACE GetNextTokenSpace;
};
static_assert(offsetof(EFI_PCD_PROTOCOL, GetBool) == 48);
static_assert(sizeof(EFI_PCD_PROTOCOL) == 18 * 8);
