// What every command-line tool shares: whole-file reads and writes, and a small JSON writer
// for the tools' --json output (one object, keys in the order written, strings escaped).
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// False when the file cannot be opened or read.
bool ReadWholeFile(const std::string &Path, std::vector<uint8_t> &Bytes);
bool WriteWholeFile(const std::string &Path, const std::vector<uint8_t> &Bytes);

// Builds JSON text. Begin/End calls nest; inside an object every value is preceded by Key().
//   JsonWriter Json; Json.BeginObject().Key("blocks").Number(4096).Key("ok").Bool(true).EndObject();
class JsonWriter {
public:
  JsonWriter &BeginObject() { return Open('{'); }
  JsonWriter &EndObject() { return Close('}'); }
  JsonWriter &BeginArray() { return Open('['); }
  JsonWriter &EndArray() { return Close(']'); }
  JsonWriter &Key(std::string_view Name);
  JsonWriter &String(std::string_view Value);
  JsonWriter &Number(uint64_t Value);
  JsonWriter &SignedNumber(int64_t Value);
  JsonWriter &Real(double Value);
  JsonWriter &Bool(bool Value);
  JsonWriter &Null();
  // "0x..." hexadecimal text, for addresses and statuses.
  JsonWriter &Hex(uint64_t Value);
  const std::string &Text() const { return Text_; }

private:
  JsonWriter &Open(char Bracket);
  JsonWriter &Close(char Bracket);
  void BeforeValue();

  std::string Text_;
  std::vector<bool> First_;  // per open level: no element written yet
  bool AfterKey_ = false;
};
