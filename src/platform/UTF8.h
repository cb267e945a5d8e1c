#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarn {

/// Bytes of the UTF-8 character at the start of a text, 1 to 4; 0 if there is none. Overlong forms, surrogates and
/// values above U+10FFFF are no characters (RFC 3629 4).
size_t characterLength(std::string_view text);

/// The number of the character that all these bytes make; for a byte that makes none, that byte.
uint32_t characterNumber(std::string_view character);

/// True for the empty text too.
bool isUTF8(std::string_view text);

/// The start of a UTF-8 text, at most `size` bytes, cut between characters.
std::string_view cutUTF8(std::string_view text, size_t size);

/// A text with small letters in place of A to Z.
std::string lowered(std::string_view text);

/// A stranger's text on one line, at most `size` bytes and "...": white space becomes one blank; control characters,
/// marks that turn the direction of writing or are not seen, and bytes that are not UTF-8 are left out.
std::string plainLine(std::string_view text, size_t size);

/// A stranger's text for a terminal, all of it: control characters, line ends included, marks that turn the direction
/// of writing, and bytes that are not UTF-8 become "\\x1b" or "\\u202e".
std::string escaped(std::string_view text);

/// JSON text for a terminal, with the same meaning: what JSON lets stand of these characters becomes "\\u202e".
std::string escapedJSON(std::string_view json);

/// Puts a character at the end of a UTF-8 text; nothing for a number that is no character.
void appendCharacter(std::string& text, uint32_t character);

}  // namespace tarn
