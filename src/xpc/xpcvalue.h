#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

// Objective-C's headers define Nil as a macro; the name is ours in here.
#pragma push_macro("Nil")
#undef Nil

namespace tarvex::itx::xpc {

// The kind a number was made with; the receiving side rebuilds exactly this
// kind (numberWithInt:, numberWithUnsignedInt:, ...).
enum class NumberKind : uint8_t { Int, UnsignedInt, LongLong, UnsignedLongLong, Bool };

struct Number {
  NumberKind kind = NumberKind::Int;
  uint64_t bits = 0;  // two's complement for the signed kinds

  static Number ofInt(int32_t v) { return {NumberKind::Int, static_cast<uint64_t>(int64_t{v})}; }
  static Number ofUnsignedInt(uint32_t v) { return {NumberKind::UnsignedInt, v}; }
  static Number ofLongLong(int64_t v) { return {NumberKind::LongLong, static_cast<uint64_t>(v)}; }
  static Number ofUnsignedLongLong(uint64_t v) { return {NumberKind::UnsignedLongLong, v}; }
  static Number ofBool(bool v) { return {NumberKind::Bool, v ? 1u : 0u}; }

  int64_t asSigned() const {
    switch (kind) {
      case NumberKind::Int: return static_cast<int32_t>(bits);
      case NumberKind::UnsignedInt: return static_cast<uint32_t>(bits);
      case NumberKind::Bool: return bits != 0;
      default: return static_cast<int64_t>(bits);
    }
  }
  // intValue / unsignedIntValue as the platform's number class answers them.
  int32_t intValue() const { return static_cast<int32_t>(asSigned()); }
  uint32_t unsignedIntValue() const { return static_cast<uint32_t>(asSigned()); }
  uint64_t unsignedLongLongValue() const { return static_cast<uint64_t>(asSigned()); }

  bool operator==(const Number& o) const { return kind == o.kind && bits == o.bits; }
};

struct Value;
struct DictEntry;

// Keys keep their insertion order, as the link carries them.
struct Dictionary {
  std::vector<DictEntry> entries;

  const Value* find(std::string_view key) const;
  size_t size() const;
  bool operator==(const Dictionary& o) const;
};

struct Array {
  std::vector<Value> items;
  bool operator==(const Array& o) const;
};

struct Nil {
  bool operator==(const Nil&) const { return true; }
};

// A property-list value: nil, string, number, dictionary or array.
struct Value {
  std::variant<Nil, std::string, Number, Dictionary, Array> v;

  // Defined below, once DictEntry is complete: building the variant
  // instantiates the containers' members.
  Value();
  Value(std::string s);
  Value(const char* s);
  Value(Number n);
  Value(Dictionary d);
  Value(Array a);

  bool isNil() const { return std::holds_alternative<Nil>(v); }
  const std::string* string() const { return std::get_if<std::string>(&v); }
  const Number* number() const { return std::get_if<Number>(&v); }
  const Dictionary* dictionary() const { return std::get_if<Dictionary>(&v); }
  const Array* array() const { return std::get_if<Array>(&v); }
  bool operator==(const Value& o) const { return v == o.v; }
};

struct DictEntry {
  std::string key;
  Value value;
  bool operator==(const DictEntry& o) const { return key == o.key && value == o.value; }
};

inline Value::Value() = default;
inline Value::Value(std::string s) : v(std::move(s)) {}
inline Value::Value(const char* s) : v(std::string(s)) {}
inline Value::Value(Number n) : v(n) {}
inline Value::Value(Dictionary d) : v(std::move(d)) {}
inline Value::Value(Array a) : v(std::move(a)) {}

inline const Value* Dictionary::find(std::string_view key) const {
  for (const DictEntry& e : entries) {
    if (e.key == key) return &e.value;
  }
  return nullptr;
}
inline size_t Dictionary::size() const { return entries.size(); }
inline bool Dictionary::operator==(const Dictionary& o) const { return entries == o.entries; }
inline bool Array::operator==(const Array& o) const { return items == o.items; }

}  // namespace tarvex::itx::xpc

#pragma pop_macro("Nil")
