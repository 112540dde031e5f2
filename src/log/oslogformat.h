#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

namespace tarvex::itx::log {

// One argument of a log line, as the unified log's formatter sees it.
struct LogArg {
  enum class Kind : uint8_t { None, Signed, Unsigned, Double, String, Pointer };

  LogArg() = default;
  LogArg(const char* s) : kind(Kind::String), str(s) {}
  LogArg(std::nullptr_t) : kind(Kind::String), str(nullptr) {}
  LogArg(char* s) : kind(Kind::String), str(s) {}
  LogArg(const void* p) : kind(Kind::Pointer), ptr(p) {}
  LogArg(double d) : kind(Kind::Double), dbl(d) {}
  template <typename T, std::enable_if_t<std::is_integral_v<T> || std::is_enum_v<T>, int> = 0>
  LogArg(T v) {
    if constexpr (std::is_enum_v<T>) {
      using U = std::underlying_type_t<T>;
      *this = LogArg(static_cast<U>(v));
    } else if constexpr (std::is_signed_v<T>) {
      kind = Kind::Signed;
      sgn = static_cast<long long>(v);
    } else {
      kind = Kind::Unsigned;
      uns = static_cast<unsigned long long>(v);
    }
  }

  Kind kind = Kind::None;
  union {
    long long sgn;
    unsigned long long uns = 0;
    double dbl;
    const char* str;
    const void* ptr;
  };
};

// Renders an os_log format: printf directives, with "%{public}s" and
// "%{private}s" as plain strings and "%{bool}d" as true/false. Missing
// arguments render as empty text rather than reading past the array.
std::string renderOsLog(const char* fmt, const LogArg* args, size_t count);

}  // namespace tarvex::itx::log
