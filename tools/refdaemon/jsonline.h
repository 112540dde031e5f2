#pragma once

#include <string>
#include <string_view>

#include "xpc/xpcvalue.h"

namespace lumo::refdaemon {

// JSON text of a string, quoted and escaped.
std::string jsonString(std::string_view text);

// JSON text of a link value. Numbers keep their kind as a one-key object,
// {"int":-2}, {"uint":12}, {"longlong":-5}, {"ulonglong":5000000000} or
// {"bool":true}; dictionaries become objects in their own key order, nil
// becomes null.
std::string jsonValue(const tarvex::itx::xpc::Value& value);

// One output line under construction: an object whose members are added in
// order, each with JSON text as its value.
class JsonLine {
 public:
  JsonLine& raw(std::string_view key, std::string_view json);
  JsonLine& text(std::string_view key, std::string_view value);
  JsonLine& number(std::string_view key, long long value);
  JsonLine& flag(std::string_view key, bool value);
  // One member; beside a string the extension escaped (not UTF-8 as
  // named), KEY_bytes with the original bytes in hex.
  JsonLine& entry(const std::string& key, const tarvex::itx::xpc::Value& value);
  // Appends a dictionary's entries as members of this object.
  JsonLine& entries(const tarvex::itx::xpc::Dictionary& dictionary);
  std::string str() const { return body_ + "}"; }

 private:
  void key(std::string_view key);  // the separator, the quoted key and ':'
  std::string body_ = "{";
};

}  // namespace lumo::refdaemon
