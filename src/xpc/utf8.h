#pragma once

#include <cstddef>
#include <string_view>

namespace tarvex::itx::xpc {

// Well-formed UTF-8: no overlong forms, surrogates or values past U+10FFFF.
bool isValidUtf8(std::string_view text);

// The length of the well-formed UTF-8 sequence that starts text[at], or 0
// when there is none.
size_t utf8SequenceLength(std::string_view text, size_t at);

}  // namespace tarvex::itx::xpc
