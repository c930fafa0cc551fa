#include "ToolSupport.h"

#include <cinttypes>
#include <cstdio>
#include <fstream>

bool ReadWholeFile(const std::string &Path, std::vector<uint8_t> &Bytes) {
  std::ifstream File(Path, std::ios::binary | std::ios::ate);
  if (!File) {
    return false;
  }
  const std::streamoff Size = File.tellg();
  if (Size < 0) {
    return false;
  }
  Bytes.resize(static_cast<size_t>(Size));
  File.seekg(0);
  File.read(reinterpret_cast<char *>(Bytes.data()), Size);
  return static_cast<bool>(File);
}

bool WriteWholeFile(const std::string &Path, const std::vector<uint8_t> &Bytes) {
  std::ofstream File(Path, std::ios::binary | std::ios::trunc);
  File.write(reinterpret_cast<const char *>(Bytes.data()), static_cast<std::streamsize>(Bytes.size()));
  return static_cast<bool>(File);
}

void JsonWriter::BeforeValue() {
  if (AfterKey_) {
    AfterKey_ = false;
    return;
  }
  if (!First_.empty()) {
    if (!First_.back()) {
      Text_ += ',';
    }
    First_.back() = false;
  }
}

JsonWriter &JsonWriter::Open(char Bracket) {
  BeforeValue();
  Text_ += Bracket;
  First_.push_back(true);
  return *this;
}

JsonWriter &JsonWriter::Close(char Bracket) {
  if (!First_.empty()) {
    First_.pop_back();
  }
  Text_ += Bracket;
  return *this;
}

JsonWriter &JsonWriter::Key(std::string_view Name) {
  String(Name);
  Text_ += ':';
  AfterKey_ = true;
  return *this;
}

JsonWriter &JsonWriter::String(std::string_view Value) {
  BeforeValue();
  Text_ += '"';
  for (const char Character : Value) {
    const auto Byte = static_cast<unsigned char>(Character);
    if (Character == '"' || Character == '\\') {
      Text_ += '\\';
      Text_ += Character;
    } else if (Byte < 0x20) {
      char Escape[8];
      std::snprintf(Escape, sizeof(Escape), "\\u%04x", Byte);
      Text_ += Escape;
    } else {
      Text_ += Character;
    }
  }
  Text_ += '"';
  return *this;
}

JsonWriter &JsonWriter::Number(uint64_t Value) {
  BeforeValue();
  Text_ += std::to_string(Value);
  return *this;
}

JsonWriter &JsonWriter::SignedNumber(int64_t Value) {
  BeforeValue();
  Text_ += std::to_string(Value);
  return *this;
}

JsonWriter &JsonWriter::Real(double Value) {
  BeforeValue();
  char Text[32];
  std::snprintf(Text, sizeof(Text), "%.6g", Value);
  Text_ += Text;
  return *this;
}

JsonWriter &JsonWriter::Bool(bool Value) {
  BeforeValue();
  Text_ += Value ? "true" : "false";
  return *this;
}

JsonWriter &JsonWriter::Null() {
  BeforeValue();
  Text_ += "null";
  return *this;
}

JsonWriter &JsonWriter::Hex(uint64_t Value) {
  char Text[24];
  std::snprintf(Text, sizeof(Text), "0x%" PRIx64, Value);
  return String(Text);
}
