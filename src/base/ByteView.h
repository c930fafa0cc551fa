// A checked, read-only view of untrusted bytes (images, flash, HOB data, stores).
// Every read names an offset and a width and fails, changing nothing, instead of
// leaving the buffer. Bounds are written so that they cannot wrap.
#pragma once
#include "BaseLib.h"

class ByteView {
public:
  constexpr ByteView() = default;
  constexpr ByteView(const VOID *Data, UINTN Size) : Data_(static_cast<const UINT8 *>(Data)), Size_(Data ? Size : 0) {}

  const UINT8 *Data() const { return Data_; }
  UINTN Size() const { return Size_; }
  bool Empty() const { return Size_ == 0; }

  bool Contains(UINTN Offset, UINTN Length) const { return Offset <= Size_ && Length <= Size_ - Offset; }

  // Pointer to [Offset, Offset + Length) or nullptr when that range is not wholly inside.
  const UINT8 *At(UINTN Offset, UINTN Length) const { return Contains(Offset, Length) ? Data_ + Offset : nullptr; }

  bool Sub(UINTN Offset, UINTN Length, ByteView &Out) const {
    if (!Contains(Offset, Length)) {
      return false;
    }
    Out = ByteView(Data_ + Offset, Length);
    return true;
  }

  bool Read8(UINTN Offset, UINT8 &Value) const {
    const UINT8 *Where = At(Offset, 1);
    if (Where == nullptr) {
      return false;
    }
    Value = *Where;
    return true;
  }
  bool Read16(UINTN Offset, UINT16 &Value) const { return ReadLe(Offset, Value); }
  bool Read32(UINTN Offset, UINT32 &Value) const { return ReadLe(Offset, Value); }
  bool Read64(UINTN Offset, UINT64 &Value) const { return ReadLe(Offset, Value); }
  bool ReadBytes(UINTN Offset, VOID *Destination, UINTN Length) const {
    const UINT8 *Where = At(Offset, Length);
    if (Where == nullptr) {
      return false;
    }
    CopyMem(Destination, Where, Length);
    return true;
  }
  bool ReadGuid(UINTN Offset, EFI_GUID &Guid) const { return ReadBytes(Offset, &Guid, sizeof(Guid)); }
  bool Equals(UINTN Offset, const VOID *Expected, UINTN Length) const {
    const UINT8 *Where = At(Offset, Length);
    return Where != nullptr && CompareMem(Where, Expected, Length) == 0;
  }

private:
  template <typename T> bool ReadLe(UINTN Offset, T &Value) const {
    const UINT8 *Where = At(Offset, sizeof(T));
    if (Where == nullptr) {
      return false;
    }
    __builtin_memcpy(&Value, Where, sizeof(T));
    return true;
  }

  const UINT8 *Data_ = nullptr;
  UINTN Size_ = 0;
};
