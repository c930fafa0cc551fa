// Owners of boot-services pool and page memory: move-only, freed on every return path.
#pragma once
#include <utility>

#include "BaseLib.h"
#include "Globals.h"

class PoolBuffer {
public:
  PoolBuffer() = default;
  PoolBuffer(const PoolBuffer &) = delete;
  PoolBuffer &operator=(const PoolBuffer &) = delete;
  PoolBuffer(PoolBuffer &&Other) : Data_(std::exchange(Other.Data_, nullptr)), Size_(std::exchange(Other.Size_, 0)) {}
  PoolBuffer &operator=(PoolBuffer &&Other) {
    if (this != &Other) {
      Reset();
      Data_ = std::exchange(Other.Data_, nullptr);
      Size_ = std::exchange(Other.Size_, 0);
    }
    return *this;
  }
  ~PoolBuffer() { Reset(); }

  // An empty holder when the pool is exhausted; callers test it with operator bool.
  static PoolBuffer Allocate(UINTN Size) {
    PoolBuffer Buffer;
    VOID *Memory = nullptr;
    if (gBS != nullptr && gBS->AllocatePool(EfiBootServicesData, Size, &Memory) == EFI_SUCCESS && Memory != nullptr) {
      Buffer.Data_ = static_cast<UINT8 *>(Memory);
      Buffer.Size_ = Size;
    }
    return Buffer;
  }
  static PoolBuffer AllocateZeroed(UINTN Size) {
    PoolBuffer Buffer = Allocate(Size);
    if (Buffer) {
      ZeroMem(Buffer.Data_, Size);
    }
    return Buffer;
  }

  explicit operator bool() const { return Data_ != nullptr; }
  UINT8 *Data() const { return Data_; }
  UINTN Size() const { return Size_; }
  template <typename T> T *As() const { return reinterpret_cast<T *>(Data_); }

  // Hands the memory to a new owner (a caller, or state that lives for the firmware's life).
  UINT8 *Release() {
    Size_ = 0;
    return std::exchange(Data_, nullptr);
  }
  void Reset() {
    if (Data_ != nullptr) {
      gBS->FreePool(Data_);
      Data_ = nullptr;
      Size_ = 0;
    }
  }

private:
  UINT8 *Data_ = nullptr;
  UINTN Size_ = 0;
};

class PageBuffer {
public:
  PageBuffer() = default;
  PageBuffer(const PageBuffer &) = delete;
  PageBuffer &operator=(const PageBuffer &) = delete;
  PageBuffer(PageBuffer &&Other)
      : Address_(std::exchange(Other.Address_, 0)), Pages_(std::exchange(Other.Pages_, 0)) {}
  PageBuffer &operator=(PageBuffer &&Other) {
    if (this != &Other) {
      Reset();
      Address_ = std::exchange(Other.Address_, 0);
      Pages_ = std::exchange(Other.Pages_, 0);
    }
    return *this;
  }
  ~PageBuffer() { Reset(); }

  static PageBuffer Allocate(UINTN Pages) {
    PageBuffer Buffer;
    EFI_PHYSICAL_ADDRESS Address = 0;
    if (gBS != nullptr && gBS->AllocatePages(AllocateAnyPages, EfiBootServicesData, Pages, &Address) == EFI_SUCCESS) {
      Buffer.Address_ = Address;
      Buffer.Pages_ = Pages;
    }
    return Buffer;
  }

  explicit operator bool() const { return Address_ != 0; }
  UINT8 *Data() const { return reinterpret_cast<UINT8 *>(Address_); }
  UINTN Size() const { return Pages_ * SIZE_4KB; }
  void Reset() {
    if (Address_ != 0) {
      gBS->FreePages(Address_, Pages_);
      Address_ = 0;
      Pages_ = 0;
    }
  }

private:
  EFI_PHYSICAL_ADDRESS Address_ = 0;
  UINTN Pages_ = 0;
};
