#include "refdaemon/jsonline.h"

#include <cstdio>

#include "text/byteescape.h"

namespace lumo::refdaemon {

using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::DictEntry;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::NumberKind;
using tarvex::itx::xpc::Value;
using tarvex::itx::rtn::linux_platform::unescapeBytes;

std::string jsonString(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
          out += escaped;
        } else {
          out += c;  // UTF-8 passes through: the link only carries valid UTF-8
        }
    }
  }
  return out + "\"";
}

namespace {

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

std::string jsonNumber(const Number& n) {
  switch (n.kind) {
    case NumberKind::Int: return "{\"int\":" + std::to_string(n.intValue()) + "}";
    case NumberKind::UnsignedInt: return "{\"uint\":" + std::to_string(n.unsignedIntValue()) + "}";
    case NumberKind::LongLong: return "{\"longlong\":" + std::to_string(n.asSigned()) + "}";
    case NumberKind::UnsignedLongLong: return "{\"ulonglong\":" + std::to_string(n.bits) + "}";
    case NumberKind::Bool: return std::string("{\"bool\":") + (n.bits ? "true" : "false") + "}";
  }
  return "null";
}

}  // namespace

std::string jsonValue(const Value& value) {
  if (const std::string* s = value.string()) return jsonString(*s);
  if (const Number* n = value.number()) return jsonNumber(*n);
  if (const Dictionary* d = value.dictionary()) return JsonLine().entries(*d).str();
  if (const Array* a = value.array()) {
    std::string out = "[";
    for (const Value& item : a->items) {
      if (out.size() > 1) out += ",";
      out += jsonValue(item);
    }
    return out + "]";
  }
  return "null";
}

JsonLine& JsonLine::raw(std::string_view key, std::string_view json) {
  if (body_.size() > 1) body_ += ",";
  body_ += jsonString(key);
  body_ += ":";
  body_ += json;
  return *this;
}

JsonLine& JsonLine::text(std::string_view key, std::string_view value) {
  return raw(key, jsonString(value));
}

JsonLine& JsonLine::number(std::string_view key, long long value) {
  return raw(key, std::to_string(value));
}

JsonLine& JsonLine::flag(std::string_view key, bool value) {
  return raw(key, value ? "true" : "false");
}

JsonLine& JsonLine::entry(const std::string& key, const Value& value) {
  raw(key, jsonValue(value));
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
