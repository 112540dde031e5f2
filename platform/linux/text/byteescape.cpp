#include "text/byteescape.h"

#include <atomic>

#include "xpc/utf8.h"

namespace tarvex::itx::rtn::linux_platform {

namespace {

using tarvex::itx::xpc::utf8SequenceLength;

std::atomic<uint64_t> gEscaped{0};

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// `\xHH` at text[at].
bool hexEscapeAt(std::string_view text, size_t at) {
  return at + 3 < text.size() && text[at] == '\\' && text[at + 1] == 'x' &&
         hexValue(text[at + 2]) >= 0 && hexValue(text[at + 3]) >= 0;
}

}  // namespace

bool needsEscape(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    const char c = text[at];
    if (c == '\\') {
      if (at + 1 < text.size() && text[at + 1] == '\\') return true;
      if (hexEscapeAt(text, at)) return true;
      ++at;
    } else if (static_cast<unsigned char>(c) < 0x80) {
      ++at;
    } else {
      const size_t length = utf8SequenceLength(text, at);
      if (length == 0) return true;
      at += length;
    }
  }
  return false;
}

std::string escapeBytes(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size() + 8);
  for (size_t at = 0; at < text.size();) {
    const auto c = static_cast<unsigned char>(text[at]);
    const size_t length = c < 0x80 ? 1 : utf8SequenceLength(text, at);
    if (c == '\\') {
      out += "\\\\";
    } else if (length == 0) {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    } else {
      out.append(text.substr(at, length));
    }
    at += length == 0 ? 1 : length;
  }
  gEscaped.fetch_add(1, std::memory_order_relaxed);
  return out;
}

std::string unescapeBytes(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\\' && at + 1 < text.size() && text[at + 1] == '\\') {
      out += '\\';
      ++at;
    } else if (hexEscapeAt(text, at)) {
      out += static_cast<char>(hexValue(text[at + 2]) * 16 + hexValue(text[at + 3]));
      at += 3;
    } else {
      out += text[at];
    }
  }
  return out;
}

uint64_t escapedStrings() { return gEscaped.load(std::memory_order_relaxed); }

}  // namespace tarvex::itx::rtn::linux_platform
