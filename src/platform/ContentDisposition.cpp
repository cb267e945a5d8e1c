#include "platform/ContentDisposition.h"

#include <algorithm>

#include "platform/URL.h"
#include "platform/UTF8.h"

namespace tarn {
namespace {

constexpr std::string_view blanks = " \t";

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return text.substr(0, text.find_last_not_of(blanks) + 1);
}

/// The text of a string between quotes, which `rest` begins with; takes it away from there. Without an end it reaches
/// to the end of the field.
std::string takeQuoted(std::string_view& rest) {
  std::string text;
  size_t i = 1;
  for (; i < rest.size() && rest[i] != '"'; ++i) {
    if (rest[i] == '\\' && i + 1 < rest.size()) ++i;
    text += rest[i];
  }
  rest.remove_prefix(std::min(i + 1, rest.size()));
  return text;
}

struct Parameter {
  std::string name;  ///< lower case
  std::string value = {};
};

/// The next parameter of `rest`, which begins after a ";"; takes it away from there. Nothing if there is none.
std::optional<Parameter> takeParameter(std::string_view& rest) {
  const size_t equals = rest.find_first_of("=;");
  if (equals == std::string_view::npos) return std::nullopt;
  Parameter parameter{.name = lowered(trimmed(rest.substr(0, equals)))};
  rest.remove_prefix(equals);
  if (rest.front() == '=') {
    rest.remove_prefix(1);
    rest.remove_prefix(std::min(rest.find_first_not_of(blanks), rest.size()));
    parameter.value = rest.starts_with('"') ? takeQuoted(rest) : trimmed(rest.substr(0, rest.find(';')));
  }
  rest.remove_prefix(std::min(rest.find(';'), rest.size()));
  if (!rest.empty()) rest.remove_prefix(1);
  return parameter;
}

std::string fromLatin1(std::string_view text) {
  std::string result;
  for (const char c : text) appendCharacter(result, static_cast<unsigned char>(c));
  return result;
}

/// "UTF-8'en'a%20b"
std::optional<std::string> decodeExtended(std::string_view value) {
  const size_t first = value.find('\'');
  const size_t second = first == std::string_view::npos ? first : value.find('\'', first + 1);
  if (second == std::string_view::npos) return std::nullopt;
  const std::string charset = lowered(value.substr(0, first));
  auto text = percentDecode(value.substr(second + 1));
  if (!text) return std::nullopt;
  if (charset == "iso-8859-1") return fromLatin1(*text);
  if (charset == "utf-8" && isUTF8(*text)) return text;
  return std::nullopt;
}

std::optional<std::string> plainName(std::string_view text) {
  text.remove_prefix(text.find_last_of("/\\") + 1);
  std::string name = plainLine(text, text.size());
  if (name.find_first_not_of(". ") == std::string::npos) return std::nullopt;
  return name;
}

}  // namespace

std::optional<std::string> filenameOfDisposition(std::string_view field) {
  std::optional<std::string> plain;
  std::optional<std::string> extended;
  field.remove_prefix(std::min(field.find(';'), field.size()));
  if (!field.empty()) field.remove_prefix(1);
  while (const auto parameter = takeParameter(field)) {
    const std::string& value = parameter->value;
    if (parameter->name == "filename" && !plain) plain = isUTF8(value) ? value : fromLatin1(value);
    if (parameter->name == "filename*" && !extended) extended = decodeExtended(value);
  }
  const auto name = plainName(extended.value_or(""));
  return name ? name : plainName(plain.value_or(""));
}

}  // namespace tarn
