#include "refdaemon/jsonline.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "text/byteescape.h"

namespace lumo::refdaemon {

using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::DictEntry;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::NumberKind;
using tarvex::itx::xpc::Value;
using tarvex::itx::rtn::linux_platform::unescapeBytes;

namespace {

// Whether any of eight bytes is a control character, '"' or '\\': the
// usual tests for a zero byte, below 0x20 and after xor with each.
bool mayNeedEscape(uint64_t bytes) {
  constexpr uint64_t kOnes = 0x0101010101010101ull;
  constexpr uint64_t kHighs = 0x8080808080808080ull;
  auto hasZero = [&](uint64_t v) { return (v - kOnes) & ~v & kHighs; };
  return (((bytes - kOnes * 0x20) & ~bytes & kHighs) | hasZero(bytes ^ (kOnes * '"')) |
          hasZero(bytes ^ (kOnes * '\\'))) != 0;
}

// Appends text quoted and escaped; runs that need no escape go in whole,
// found eight bytes at a time.
void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  size_t run = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    uint64_t bytes;
    while (i + sizeof bytes <= text.size()) {
      std::memcpy(&bytes, text.data() + i, sizeof bytes);
      if (mayNeedEscape(bytes)) break;
      i += sizeof bytes;
    }
    if (i == text.size()) break;
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;  // UTF-8 passes through
    out.append(text, run, i - run);
    run = i + 1;
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default: {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
        out += escaped;
      }
    }
  }
  out.append(text, run, text.size() - run);
  out += '"';
}

template <typename T>
void appendInteger(std::string& out, T value) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out.append(digits, end);
}

std::string hexBytes(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    out += kHex[static_cast<unsigned char>(c) >> 4];
    out += kHex[static_cast<unsigned char>(c) & 0xF];
  }
  return out;
}

void appendJsonNumber(std::string& out, const Number& n) {
  switch (n.kind) {
    case NumberKind::Int: out += "{\"int\":"; appendInteger(out, n.intValue()); break;
    case NumberKind::UnsignedInt:
      out += "{\"uint\":";
      appendInteger(out, n.unsignedIntValue());
      break;
    case NumberKind::LongLong: out += "{\"longlong\":"; appendInteger(out, n.asSigned()); break;
    case NumberKind::UnsignedLongLong: out += "{\"ulonglong\":"; appendInteger(out, n.bits); break;
    case NumberKind::Bool: out += n.bits ? "{\"bool\":true" : "{\"bool\":false"; break;
    default: out += "null"; return;
  }
  out += '}';
}

void appendJsonValue(std::string& out, const Value& value) {
  if (const std::string* s = value.string()) return appendJsonString(out, *s);
  if (const Number* n = value.number()) return appendJsonNumber(out, *n);
  if (const Dictionary* d = value.dictionary()) {
    out += JsonLine().entries(*d).str();
    return;
  }
  if (const Array* a = value.array()) {
    out += '[';
    for (size_t i = 0; i < a->items.size(); ++i) {
      if (i > 0) out += ',';
      appendJsonValue(out, a->items[i]);
    }
    out += ']';
    return;
  }
  out += "null";
}

}  // namespace

std::string jsonString(std::string_view text) {
  std::string out;
  appendJsonString(out, text);
  return out;
}

std::string jsonValue(const Value& value) {
  std::string out;
  appendJsonValue(out, value);
  return out;
}

void JsonLine::key(std::string_view key) {
  if (body_.size() > 1) body_ += ',';
  appendJsonString(body_, key);
  body_ += ':';
}

JsonLine& JsonLine::raw(std::string_view key, std::string_view json) {
  this->key(key);
  body_ += json;
  return *this;
}

JsonLine& JsonLine::text(std::string_view key, std::string_view value) {
  this->key(key);
  appendJsonString(body_, value);
  return *this;
}

JsonLine& JsonLine::number(std::string_view key, long long value) {
  this->key(key);
  appendInteger(body_, value);
  return *this;
}

JsonLine& JsonLine::flag(std::string_view key, bool value) {
  return raw(key, value ? "true" : "false");
}

JsonLine& JsonLine::entry(const std::string& key, const Value& value) {
  this->key(key);
  appendJsonValue(body_, value);
  // A name the extension had to escape: its original bytes beside it.
  const std::string* s = value.string();
  if (s != nullptr && s->find('\\') != std::string::npos) {
    const std::string original = unescapeBytes(*s);
    if (original != *s) text(key + "_bytes", hexBytes(original));
  }
  return *this;
}

JsonLine& JsonLine::entries(const Dictionary& dictionary) {
  for (const DictEntry& e : dictionary.entries) entry(e.key, e.value);
  return *this;
}

}  // namespace lumo::refdaemon
