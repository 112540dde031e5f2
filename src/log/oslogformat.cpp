#include "log/oslogformat.h"

#include <cstdio>
#include <cstring>

namespace tarvex::itx::log {

namespace {

bool isFlag(char c) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLength(char c) {
  return c == 'h' || c == 'l' || c == 'q' || c == 'j' || c == 'z' || c == 't' || c == 'L';
}

const LogArg& argAt(const LogArg* args, size_t count, size_t index) {
  static const LogArg kNone{};
  return index < count ? args[index] : kNone;
}

long long asSigned(const LogArg& a) {
  switch (a.kind) {
    case LogArg::Kind::Signed: return a.sgn;
    case LogArg::Kind::Unsigned: return static_cast<long long>(a.uns);
    case LogArg::Kind::Double: return static_cast<long long>(a.dbl);
    default: return 0;
  }
}

unsigned long long asUnsigned(const LogArg& a) {
  return a.kind == LogArg::Kind::Unsigned ? a.uns : static_cast<unsigned long long>(asSigned(a));
}

template <typename... T>
void appendf(std::string& out, const char* directive, T... value) {
  char buf[128];
  int n = std::snprintf(buf, sizeof buf, directive, value...);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof buf) {
    out.append(buf, static_cast<size_t>(n));
    return;
  }
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), directive, value...);
  out.append(big.data(), static_cast<size_t>(n));
}

}  // namespace

std::string renderOsLog(const char* fmt, const LogArg* args, size_t count) {
  std::string out;
  out.reserve(std::strlen(fmt) + 64);
  size_t next = 0;
  for (const char* p = fmt; *p != '\0'; ++p) {
    if (*p != '%') {
      out.push_back(*p);
      continue;
    }
    const char* start = p++;
    if (*p == '%') {
      out.push_back('%');
      continue;
    }
    // Annotation such as {public}, {private} or {bool}.
    bool isBool = false;
    if (*p == '{') {
      const char* close = std::strchr(p, '}');
      if (close == nullptr) {
        out.append(start);
        break;
      }
      isBool = std::strncmp(p, "{bool}", 6) == 0;
      p = close + 1;
    }
    // Flags, width and precision are kept; the length is normalised below.
    std::string directive = "%";
    while (isFlag(*p)) directive.push_back(*p++);
    while (isDigit(*p)) directive.push_back(*p++);
    if (*p == '.') {
      directive.push_back(*p++);
      while (isDigit(*p)) directive.push_back(*p++);
    }
    int longs = 0;
    while (isLength(*p)) {
      if (*p == 'l' || *p == 'q' || *p == 'j' || *p == 'z' || *p == 't') ++longs;
      ++p;
    }
    const char conv = *p;
    if (conv == '\0') {
      out.append(start);
      break;
    }
    const LogArg& arg = argAt(args, count, next++);
    switch (conv) {
      case 'd':
      case 'i': {
        long long v = longs > 0 ? asSigned(arg) : static_cast<int>(asSigned(arg));
        if (isBool) {
          out.append(v != 0 ? "true" : "false");
        } else {
          appendf(out, (directive + "lld").c_str(), v);
        }
        break;
      }
      case 'u':
      case 'x':
      case 'X':
      case 'o': {
        unsigned long long v =
            longs > 0 ? asUnsigned(arg) : static_cast<unsigned int>(asUnsigned(arg));
        if (isBool) {
          out.append(v != 0 ? "true" : "false");
        } else {
          appendf(out, (directive + "ll" + conv).c_str(), v);
        }
        break;
      }
      case 'c':
        out.push_back(static_cast<char>(asSigned(arg)));
        break;
      case 'f':
      case 'g':
      case 'e':
        appendf(out, (directive + conv).c_str(),
                arg.kind == LogArg::Kind::Double ? arg.dbl : static_cast<double>(asSigned(arg)));
        break;
      case 's': {
        const char* s = arg.kind == LogArg::Kind::String ? arg.str : nullptr;
        if (directive.size() == 1) {
          out.append(s != nullptr ? s : "(null)");
        } else {
          appendf(out, (directive + 's').c_str(), s != nullptr ? s : "(null)");
        }
        break;
      }
      case 'p':
        appendf(out, "%p", arg.kind == LogArg::Kind::Pointer ? arg.ptr : nullptr);
        break;
      default:
        out.append(start, static_cast<size_t>(p - start + 1));
        break;
    }
  }
  return out;
}

}  // namespace tarvex::itx::log
