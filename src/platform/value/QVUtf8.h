#pragma once

#include <string_view>

namespace qv {

// True when text is well-formed UTF-8 (no overlong forms, surrogates or
// values past U+10FFFF) and holds no NUL. That is the text a property list
// carries unchanged: libplist takes C strings and re-encodes non-ASCII text
// as UTF-16.
bool isPlistSafeUtf8(std::string_view text);

}  // namespace qv
