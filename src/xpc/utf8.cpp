#include "xpc/utf8.h"

#include <cstdint>

namespace tarvex::itx::xpc {

bool isValidUtf8(std::string_view text) {
  const auto* p = reinterpret_cast<const uint8_t*>(text.data());
  const uint8_t* end = p + text.size();
  while (p < end) {
    const uint8_t c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    int more;
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
      return false;
    }
    if (end - p <= more) return false;
    for (int i = 1; i <= more; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    if ((more == 2 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
        (more == 3 && (cp < 0x10000 || cp > 0x10FFFF))) {
      return false;
    }
    p += more + 1;
  }
  return true;
}

}  // namespace tarvex::itx::xpc
