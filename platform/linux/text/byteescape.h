#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tarvex::itx::rtn::linux_platform {

// File names and arguments on Linux are bytes; the daemon takes UTF-8
// only. A string that is valid UTF-8 and holds neither `\\` nor `\x`
// followed by two hex digits goes as it is (nearly all do). Any other is
// escaped: every backslash doubled, every byte that is not part of a valid
// UTF-8 sequence written `\xHH` (lowercase hex). Unescaping turns `\\` into
// `\` and `\xHH` into its byte, so the original bytes come back exactly and
// no name can pass for another's escape.
bool needsEscape(std::string_view text);
std::string escapeBytes(std::string_view text);
std::string unescapeBytes(std::string_view text);

// Strings escaped by this process so far.
uint64_t escapedStrings();

}  // namespace tarvex::itx::rtn::linux_platform
