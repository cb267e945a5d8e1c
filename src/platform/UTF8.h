#pragma once

#include <cstddef>
#include <string_view>

namespace tarn {

/// Bytes of the UTF-8 character at the start of a text, 1 to 4; 0 when there is none. Overlong forms, surrogates and
/// values above U+10FFFF are no characters (RFC 3629 4).
size_t characterLength(std::string_view text);

/// True for the empty text too.
bool isUTF8(std::string_view text);

/// The start of a UTF-8 text, at most `size` bytes, cut between characters.
std::string_view cutUTF8(std::string_view text, size_t size);

}  // namespace tarn
