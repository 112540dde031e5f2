#include "xpc/utf8.h"

#include <cstdint>
#include <cstring>

namespace tarvex::itx::xpc {

size_t utf8SequenceLength(std::string_view text, size_t at) {
  const auto* p = reinterpret_cast<const uint8_t*>(text.data()) + at;
  const size_t left = text.size() - at;
  const uint8_t c = p[0];
  if (c < 0x80) return 1;
  size_t more;
  uint32_t cp;
  if (c >= 0xC2 && c <= 0xDF) {
    more = 1;
    cp = c & 0x1F;
  } else if (c >= 0xE0 && c <= 0xEF) {
    more = 2;
    cp = c & 0x0F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    more = 3;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (left <= more) return 0;
  for (size_t i = 1; i <= more; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (p[i] & 0x3F);
  }
  if ((more == 2 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
      (more == 3 && (cp < 0x10000 || cp > 0x10FFFF))) {
    return 0;
  }
  return more + 1;
}

bool isValidUtf8(std::string_view text) {
  const auto* p = reinterpret_cast<const uint8_t*>(text.data());
  size_t at = 0;
  while (at < text.size()) {
    // Paths and names are mostly ASCII: eight bytes at a time while they are.
    uint64_t word;
    while (at + sizeof word <= text.size()) {
      std::memcpy(&word, p + at, sizeof word);
      if (word & 0x8080808080808080ull) break;
      at += sizeof word;
    }
    if (at == text.size()) break;
    if (p[at] < 0x80) {
      ++at;
      continue;
    }
    const size_t length = utf8SequenceLength(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

}  // namespace tarvex::itx::xpc
